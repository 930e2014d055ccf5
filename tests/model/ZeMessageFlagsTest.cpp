// Message flags: the translation tables, the update operations and the texts
// sent to the IMAP server.
#include <gtest/gtest.h>

#include <string>

#include "model/ZeMessageFlags.h"

namespace {

using F = ZeMessageFlags;

// Built while the program starts, possibly before the unit that holds the
// tables has been initialised: the tables must survive that.
const F kMadeAtStart(F::SEEN);

struct BitRow {
    unsigned long bit;
    const char* imap;      // nullptr: no IMAP name
    unsigned char letter;  // 0: no Maildir letter
};

const BitRow kBits[] = {
    {0x1, "\\Recent", 0},      {0x2, "\\Answered", 'A'},      {0x4, "\\Draft", 'D'},
    {0x8, "\\Flagged", 'F'},   {0x10, "\\Seen", 'S'},         {0x20, "\\Deleted", 'T'},
    {0x40, "$Forwarded", 'W'}, {0x80, "$Released", 'L'},      {0x100, "$label1", '1'},
    {0x200, "$label2", '2'},   {0x400, "$label3", '3'},       {0x800, "$label4", '4'},
    {0x1000, "$label5", '5'},  {0x2000, nullptr, 'X'},        {0x4000, "$CalSeen", 'C'},
    {0x8000, "$IBESeen", 'I'}, {0x10000, "$ZeExt1", 0},       {0x20000, "$ZeExt2", 0},
    {0x800000, "$ZeExt8", 0},  {0x80000000UL, "$ZeExt16", 0},
};

TEST(ZeMessageFlagsTables, EveryBitHasItsNameAndLetter) {
    for (const BitRow& row : kBits) {
        SCOPED_TRACE(row.bit);
        F flags(row.bit);
        EXPECT_EQ(row.imap ? row.imap : "", flags.asImapActionString());
        EXPECT_EQ(row.letter, F::getMaildirFlag(row.bit));
        if (row.letter != 0) {
            EXPECT_EQ(row.bit, F::getMaildirFlagRev(row.letter));
        }
        if (row.imap != nullptr) {
            F parsed;
            parsed.set_one(row.imap);
            EXPECT_EQ(row.bit, parsed.flags);
        }
    }
    EXPECT_EQ(31u, F::m_imapActionFlags.size());
    EXPECT_EQ(15u, F::m_maildirFlagsRev.size());
    EXPECT_EQ(10u, F::m_mboxFlagsRev.size());
    EXPECT_EQ(6u, F::m_imapFilterSet.size());
    EXPECT_EQ(6u, F::m_imapFilterUnSet.size());
}

TEST(ZeMessageFlagsTables, ValuesMadeAtProgramStartSeeTheTables) {
    EXPECT_EQ("\\Seen", kMadeAtStart.asImapActionString());
    EXPECT_EQ(31u, F::m_imapActionFlags.size());
}

TEST(ZeMessageFlagsTables, BitsWithoutNamesOrLetters) {
    // Above $ZeExt16 nothing is named; the letters stop at 0x8000.
    EXPECT_EQ("", F(1UL << 32).asImapActionString());
    EXPECT_EQ("", F(0x8000000000000000UL).asImapActionString());
    EXPECT_EQ(0, F::getMaildirFlag(0x10000));
    EXPECT_EQ(0, F::getMaildirFlag(0x12));  // two bits are no single letter
    EXPECT_EQ(0, F::getMaildirFlag(0));
}

TEST(ZeMessageFlagsTables, MaildirReverseLookupKnowsOnlyItsLetters) {
    EXPECT_EQ(0u, F::getMaildirFlagRev('R'));  // answered is A here
    EXPECT_EQ(0u, F::getMaildirFlagRev('s'));  // letters are case-sensitive
    EXPECT_EQ(0u, F::getMaildirFlagRev('6'));
    EXPECT_EQ(0u, F::getMaildirFlagRev(0));
    EXPECT_EQ(0u, F::getMaildirFlagRev(0xe9));
    // Misses do not grow the table.
    EXPECT_EQ(15u, F::m_maildirFlagsRev.size());
}

TEST(ZeMessageFlagsTables, MboxLettersInBothCases) {
    const struct {
        char letter;
        unsigned long bit;
    } rows[] = {{'A', 0x2}, {'F', 0x8}, {'R', 0x10}, {'O', 0x20}, {'D', 0x40}};
    for (const auto& row : rows) {
        EXPECT_EQ(row.bit, F::getMboxFlagRev(row.letter)) << row.letter;
        EXPECT_EQ(row.bit, F::getMboxFlagRev(static_cast<unsigned char>(row.letter | 0x20)))
            << row.letter;
    }
    EXPECT_EQ(0x20u, F::getMboxFlagRev('o'));
    for (unsigned char c : {'S', 's', 'T', 'X', ' ', '\0', '\xff'}) {
        EXPECT_EQ(0u, F::getMboxFlagRev(c)) << static_cast<int>(c);
    }
    EXPECT_EQ(10u, F::m_mboxFlagsRev.size());
}

TEST(ZeMessageFlagsUpdate, NewValueIsEmptyReplace) {
    F flags;
    EXPECT_EQ(0u, flags.flags);
    EXPECT_EQ(1, flags.action);
}

TEST(ZeMessageFlagsUpdate, SetAndTest) {
    F flags;
    flags.set(F::SEEN | F::DELETED, true);
    flags.set(F::DELETED | F::DRAFT, false);
    EXPECT_EQ(F::SEEN, flags.flags);
    EXPECT_TRUE(flags.test(F::SEEN | F::FLAGGED, ~0UL));
    EXPECT_FALSE(flags.test(F::SEEN, F::FLAGGED));  // masked out
    EXPECT_FALSE(flags.test(0, ~0UL));
}

TEST(ZeMessageFlagsUpdate, MergeByTheOtherAction) {
    const unsigned long start = F::SEEN | F::FLAGGED;
    const unsigned long other = F::FLAGGED | F::ANSWERED;
    const struct {
        int action;
        unsigned long expected;
    } rows[] = {
        {1, other},                               // replace
        {2, F::SEEN | F::FLAGGED | F::ANSWERED},  // add
        {3, F::SEEN},                             // remove
        {4, start},
        {5, start},
        {6, start},
        {0, start},
        {7, start},
        {-1, start},
    };
    for (const auto& row : rows) {
        F target(start, 2);
        target.merge(F(other, row.action));
        EXPECT_EQ(row.expected, target.flags) << "action " << row.action;
        EXPECT_EQ(2, target.action) << "merge keeps the target's own action";
    }
}

TEST(ZeMessageFlagsParse, ListOfNames) {
    F flags(F::FLAGGED, 3);
    flags.set("\\seen \\ANSWERED foo");
    EXPECT_EQ(0x12u, flags.flags);
    EXPECT_EQ(3, flags.action);

    flags.set("$LABEL1 $zeext16 \\Recent\r\n");
    EXPECT_EQ(0x100u | 0x80000000UL | 0x1u, flags.flags);

    flags.set("");
    EXPECT_EQ(0u, flags.flags);
    flags.set("   \\Seen   \\Seen ");
    EXPECT_EQ(F::SEEN, flags.flags);
}

TEST(ZeMessageFlagsParse, NamesMustMatchWhole) {
    F flags;
    flags.set("\\See \\Seens Seen \\* $label $label10 $ZeExt17 $ZeExt0 \"\\Seen\"");
    EXPECT_EQ(0u, flags.flags);
    flags.set_one(nullptr);
    EXPECT_EQ(0u, flags.flags);
}

TEST(ZeMessageFlagsText, StoreListInBitOrder) {
    EXPECT_EQ("\\Answered \\Seen $label1", F(0x100 | 0x10 | 0x2).asImapActionString());
    EXPECT_EQ("", F(0x2000).asImapActionString());
    EXPECT_EQ("", F(0).asImapActionString());
    EXPECT_EQ("\\Deleted $IBESeen $ZeExt1",
              F(0x2000 | 0x20 | 0x8000 | 0x10000).asImapActionString());
}

TEST(ZeMessageFlagsText, AsStringWithPrefix) {
    const F flags(F::LABEL1 | (F::LABEL1 << 1) | F::SEEN);
    EXPECT_EQ(" KEYWORD $label1 KEYWORD $label2",
              flags.asString(F::m_imapActionFlags, ~63UL, " KEYWORD"));
    EXPECT_EQ("SEEN", flags.asString(F::m_imapFilterSet, 63, ""));
    EXPECT_EQ("", flags.asString(F::m_imapFilterSet, F::DRAFT, ""));
}

TEST(ZeMessageFlagsText, SearchCriteria) {
    const struct {
        unsigned long bits;
        int action;
        const char* expected;
    } rows[] = {
        {F::SEEN | F::LABEL1, 4, "SEEN KEYWORD $label1"},
        {F::RECENT, 5, "OLD"},
        {F::LABEL1 | (F::LABEL1 << 1), 6, "NOT (  UNKEYWORD $label1 UNKEYWORD $label2 )"},
        {63, 4, "RECENT ANSWERED DRAFT FLAGGED SEEN DELETED"},
        {63, 5, "OLD UNANSWERED UNDRAFT UNFLAGGED UNSEEN UNDELETED"},
        {F::SEEN | F::FORWARDED, 5, "UNSEEN UNKEYWORD $Forwarded"},
        {F::CALSEEN, 4, " KEYWORD $CalSeen"},                    // the blank comes from the prefix
        {F::SEEN | F::LABEL1, 6, "NOT (  UNKEYWORD $label1 )"},  // system flags ignored
        {F::SEEN | F::DRAFT, 6, ""},
        {F::MAILDIR_X, 4, ""},  // never searched
        {F::MAILDIR_X, 6, ""},
        {F::MAILDIR_X | F::LABEL1, 6, "NOT (  UNKEYWORD $label1 )"},
        {1UL << 40, 6, ""},
        {0, 4, ""},
        {F::SEEN | F::LABEL1, 1, ""},
        {F::SEEN | F::LABEL1, 2, ""},
        {F::SEEN | F::LABEL1, 3, ""},
        {F::SEEN | F::LABEL1, 7, ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, F(row.bits, row.action).asImapFilterString())
            << "bits " << row.bits << " action " << row.action;
    }
}

}  // namespace
