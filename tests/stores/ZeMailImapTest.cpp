// The pure pieces of the IMAP mailbox: cutting UID lists to a range of
// positions, writing UID sets, and reading the APPENDUID code.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stores/ZeMailImap.h"

namespace {

TEST(UidLists, CutsKeepPositionsCountedFromTheNewest) {
    const std::string ten = "1,2,3,4,5,6,7,8,9,10";
    EXPECT_EQ(ten, ze_cut_uid_list(ten, 0, 25));
    EXPECT_EQ("8,9,10", ze_cut_uid_list(ten, 0, 3));
    EXPECT_EQ("5,6,7", ze_cut_uid_list(ten, 3, 6));
    EXPECT_EQ("1", ze_cut_uid_list(ten, 9, 10));
    EXPECT_EQ("", ze_cut_uid_list(ten, 10, 20));  // past the oldest
    EXPECT_EQ("", ze_cut_uid_list(ten, 4, 4));
    EXPECT_EQ("", ze_cut_uid_list(ten, 6, 3));
    EXPECT_EQ("", ze_cut_uid_list("", 0, 25));
    EXPECT_EQ("42", ze_cut_uid_list("42", 0, 1));
    // Empty items (",,") are not positions.
    EXPECT_EQ("2,3", ze_cut_uid_list("1,,2,3,", 0, 2));
}

TEST(UidLists, SetsJoinRunsAndDropWhatIsNotAUid) {
    EXPECT_EQ("1:3,7:8,10", ze_uid_set("1,2,3,7,8,10"));
    EXPECT_EQ("5", ze_uid_set("5"));
    EXPECT_EQ("", ze_uid_set(""));
    EXPECT_EQ("3,1", ze_uid_set("3,1"));  // order kept, only ascending runs join
    EXPECT_EQ("2:3", ze_uid_set("0,x,2,-1,3,+4, 5"));
    EXPECT_EQ("18446744073709551615", ze_uid_set("18446744073709551615"));
    EXPECT_EQ("1", ze_uid_set("1,18446744073709551616"));  // does not fit: dropped
    EXPECT_EQ("18446744073709551614:18446744073709551615",
              ze_uid_set("18446744073709551614,18446744073709551615"));
}

TEST(UidLists, LongSetsAreSplitAtCommasWithinTheLimit) {
    struct Case {
        const char* set;
        std::size_t max;
        std::vector<std::string> pieces;
    } cases[] = {
        {"1:3,7,9:12", 10, {"1:3,7,9:12"}},  // within the limit: one piece, as it is
        {"1:3,7,9:12", 9, {"1:3,7", "9:12"}},
        {"1:3,7,9:12", 5, {"1:3,7", "9:12"}},
        {"1:3,7,9:12", 3, {"1:3", "7", "9:12"}},  // an item longer than max stays whole
        {"123456", 2, {"123456"}},
        {"", 5, {}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.pieces, ze_split_uid_set(c.set, c.max)) << c.set << " " << c.max;
    }
    // 12,000 scattered UIDs: every piece within the limit, nothing lost.
    std::string uids;
    for (int uid = 1; uid < 24000; uid += 2) {
        uids += (uids.empty() ? "" : ",") + std::to_string(uid);
    }
    const std::string set = ze_uid_set(uids);
    std::string joined;
    for (const std::string& piece : ze_split_uid_set(set, ZeMailBoxImap::kMaxUidSet)) {
        EXPECT_LE(piece.size(), ZeMailBoxImap::kMaxUidSet);
        joined += (joined.empty() ? "" : ",") + piece;
    }
    EXPECT_EQ(set, joined);
}

TEST(AppendUid, TheCodeOfTheTaggedAnswer) {
    EXPECT_EQ(17u, ze_appended_uid("Ze4 OK [APPENDUID 1700000000 17] Append completed."));
    EXPECT_EQ(0u, ze_appended_uid("Ze4 OK Append completed."));
    EXPECT_EQ(0u, ze_appended_uid("Ze4 OK [APPENDUID 1700000000 x] odd"));
    EXPECT_EQ(0u, ze_appended_uid("Ze4 OK [APPENDUID 1700000000 17"));
    EXPECT_EQ(0u, ze_appended_uid("Ze4 OK [APPENDUID 17]"));
    EXPECT_EQ(0u, ze_appended_uid("Ze4 OK [APPENDUID -1 17]"));
    EXPECT_EQ(0u, ze_appended_uid("Ze4 OK [APPENDUID 1 +17]"));
    EXPECT_EQ(0u, ze_appended_uid("Ze4 OK [APPENDUID 1 99999999999999999999999]"));
    // A multi-append range is not one UID.
    EXPECT_EQ(0u, ze_appended_uid("Ze4 OK [APPENDUID 1 5:7] done"));
}

}  // namespace
