// The mailbox model without a server: the folder order's corner cases (the
// order of a server's list is checked in ZeMUserDovecotTest), child counts,
// folder records, users read from disk, the mailbox factory, the routing of
// the mailbox base, message handles, iteration, and the scope-and-filter
// combination.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <sstream>
#include <string>
#include <vector>

#include "model/ZeMFolder.h"
#include "model/ZeMUser.h"
#include "model/ZeMailBox.h"
#include "stores/ZeMailImap.h"
#include "support/Paths.h"
#include "support/StoreUtil.h"
#include "support/TestUtil.h"
#include "tests/support/ModelFakes.h"

namespace {

const ZeMailUserId kAnn(MAILBOX_TYPE_DEFAULT, "ann");

// A user that never talks to a server: only the list logic is exercised.
class ListOnlyUser : public ZeMUser {
public:
    ListOnlyUser() : ZeMUser(MAILBOX_TYPE_DEFAULT, "ann") {}
    int logout() override { return 0; }
    int reset_quota() override { return 0; }
    int open() override { return 0; }

    std::vector<std::string> names() const {
        std::vector<std::string> out;
        for (const ZeMFolderRef& folder : folders()) {
            out.push_back(folder->name());
        }
        return out;
    }
    int children_of(const std::string& name) const {
        for (const ZeMFolderRef& folder : folders()) {
            if (folder->name() == name) {
                return folder->children();
            }
        }
        return -1;
    }
    int add(const std::string& name, const std::string& parent = std::string()) {
        ZeMFolderRef folder = ZeMFolderRef::createDirect(id(), name, 0);
        folder->parent(parent);
        return add_folder(folder);
    }
};

// ------------------------------------------------------------ folder order

TEST(FolderOrder, ATieGoesBeforeWhenSmallerAndToTheVeryEndOtherwise) {
    ListOnlyUser smaller_later;
    smaller_later.add("abc");
    smaller_later.add("zoo");
    EXPECT_EQ(3, smaller_later.add("ABC"));  // "ABC" < "abc" byte-wise: before it
    EXPECT_EQ((std::vector<std::string>{"ABC", "abc", "zoo"}), smaller_later.names());

    ListOnlyUser larger_later;
    larger_later.add("ABC");
    larger_later.add("zoo");
    larger_later.add("abc");  // not smaller: behind every folder, "zoo" too
    EXPECT_EQ((std::vector<std::string>{"ABC", "zoo", "abc"}), larger_later.names());

    ListOnlyUser same;
    same.add("Work");
    same.add("Xylo");
    same.add("Work");  // an equal name is not smaller either
    EXPECT_EQ((std::vector<std::string>{"Work", "Xylo", "Work"}), same.names());
}

TEST(FolderOrder, ParentsListedEarlierCountTheirChildren) {
    ListOnlyUser user;
    user.add("Work");
    user.add("Work/2019", "Work");
    user.add("Work/2020", "Work");
    user.add("Work/2019/Q1", "Work/2019");
    user.add("Late/Child", "Late");  // its parent comes after it: no count
    user.add("Late");
    user.add("Workshop/x", "Workshop");  // a longer name is not the parent
    EXPECT_EQ(2, user.children_of("Work"));
    EXPECT_EQ(1, user.children_of("Work/2019"));
    EXPECT_EQ(0, user.children_of("Late"));
    EXPECT_EQ(7, static_cast<int>(user.folders().size()));
    EXPECT_EQ(-1, user.add_folder(ZeMFolderRef()));
    EXPECT_EQ(7, static_cast<int>(user.folders().size()));
}

TEST(FolderOrder, TheIteratorWalksTheListOnceLoaded) {
    ListOnlyUser user;
    ZeMFolderRef folder;
    EXPECT_FALSE(user.next_folder(folder));  // not loaded yet
    user.init_folders();
    user.add("B");
    user.add("A");
    user.reset_iterator();
    std::vector<std::string> seen;
    while (user.next_folder(folder)) {
        seen.push_back(folder->name());
    }
    EXPECT_EQ((std::vector<std::string>{"A", "B"}), seen);
}

// Which types the server keeps is MailUserIdTest's; here only that the user asks its id.
TEST(Users, ImapAccessFollowsTheIdType) {
    EXPECT_TRUE(ZeMUserRef::createDirect(static_cast<MailBoxType>(6), "ann")->hasImapAccess("x"));
    EXPECT_FALSE(ZeMUserRef::createDirect(static_cast<MailBoxType>(5), "ann")->hasImapAccess("x"));
}

TEST(Users, FactoriesPickTheKindByOpenMethod) {
    EXPECT_NE(nullptr, dynamic_cast<ZeMUserImap*>(ZeMUserRef::createImap("ann").get()));
    EXPECT_NE(nullptr, dynamic_cast<ZeMUserDirect*>(ZeMUserRef::createDirect("ann").get()));
    const ZeMUserRef typed = ZeMUserRef::create(MAILBOX_TYPE_MAILDIR, "ann", MAILBOX_OPEN_DIRECT);
    EXPECT_EQ(MAILBOX_TYPE_MAILDIR, typed->id().type());
    EXPECT_EQ(1, ZeMUserRef::create("ann", MAILBOX_OPEN_IMAP)->id().type());
    EXPECT_TRUE(
        ZeMUserRef(MAILBOX_TYPE_DEFAULT, "ann", static_cast<MailboxOpenMethod>(3)).isNull());
    EXPECT_TRUE(ZeMUserRef().isNull());
}

// ------------------------------------------------------------ folder records

TEST(Folders, RecordsCompareByParentAndNameOnly) {
    ZeMFolderRef a = ZeMFolderRef::createDirect(kAnn, "Work", 0);
    ZeMFolderRef b = ZeMFolderRef::create(ZeMailUserId(MAILBOX_TYPE_DEFAULT, "bob"), "Work", 5);
    EXPECT_TRUE(*a == *b);
    b->parent("Top");
    EXPECT_FALSE(*a == *b);
    ZeMFolder copy(*b);
    EXPECT_TRUE(copy == *b);
    EXPECT_EQ(5, copy.children());
    EXPECT_EQ("bob", copy.id().address());
}

TEST(Folders, ChildCounts) {
    ZeMFolderRef folder = ZeMFolderRef::create(kAnn, "Work", 0);
    EXPECT_EQ(1, folder->add_children(1));
    folder->add_children(1);
    EXPECT_EQ(3, folder->add_children(1));
    folder->has_children(true);
    EXPECT_EQ(1, folder->children());
    folder->has_children(false);
    EXPECT_EQ(0, folder->children());
}

TEST(Folders, DirectFoldersSendNothingAndUnsafeNamesGiveNoFolder) {
    // No IMAP program exists here: any attempt to reach one would fail.
    zemail::paths::set_imap_program("/nonexistent/imap");
    ZeMFolderRef direct = ZeMFolderRef::createDirect(kAnn, "Work", 0);
    EXPECT_EQ(nullptr, dynamic_cast<ZeMFolderImap*>(direct.get()));
    EXPECT_EQ(0, direct->create());
    EXPECT_EQ(0, direct->remove());
    EXPECT_EQ(0, direct->rename("Other"));
    EXPECT_EQ(0, direct->remove_deferred());
    EXPECT_EQ(0, direct->get_status());
    EXPECT_EQ("Work", direct->name());
    EXPECT_FALSE(ZeImapConnection::instance()->program().is_open());

    EXPECT_TRUE(ZeMFolderRef::create(kAnn, "../x", 0).isNull());
    EXPECT_TRUE(ZeMFolderRef::createDirect(kAnn, "a/../b", 0).isNull());
    EXPECT_FALSE(ZeMFolderRef::create(kAnn, "a..b", 0).isNull());
}

TEST(Folders, NamesAreQuotedForTheWireOrRefused) {
    std::string out = "untouched";
    EXPECT_TRUE(ze_imap_quote_folder("Work/2019", out));
    EXPECT_EQ("\"Work/2019\"", out);
    EXPECT_TRUE(ze_imap_quote_folder("say \"hi\" \\o/", out));
    EXPECT_EQ("\"say \\\"hi\\\" \\\\o/\"", out);
    EXPECT_TRUE(ze_imap_quote_folder("", out));
    EXPECT_EQ("\"\"", out);
    out = "untouched";
    EXPECT_FALSE(ze_imap_quote_folder("a\rb", out));
    EXPECT_FALSE(ze_imap_quote_folder("a\nb", out));
    EXPECT_FALSE(ze_imap_quote_folder(std::string("a\0b", 3), out));
    EXPECT_EQ("untouched", out);
}

// ------------------------------------------------------------ users read from disk

class DirectUser : public ::testing::Test {
protected:
    void SetUp() override { zemail::paths::set_mail_root(m_root.path()); }

    // Creates the folder of the store of id (Maildir++ or a plain tree).
    std::string make_folder(const ZeMailUserId& id, const std::string& folder) {
        const std::string dir = id.mailfolder(folder);
        EXPECT_EQ(0, vtl_mkdir_maildir(dir, 0700)) << dir;
        return dir;
    }

    zetest::TempDir m_root;
};

TEST_F(DirectUser, FoldersOnDiskAreListedInOrderWithParents) {
    const ZeMailUserId id(MAILBOX_TYPE_DEFAULT, "ann");
    for (const char* folder : {"Inbox", "Work", "Work/2019", "Sent", "archive", "Trash"}) {
        make_folder(id, folder);
    }
    ZeMUserRef user = ZeMUserRef::createDirect("ann");
    user->init_folders();
    std::vector<std::string> names;
    for (const ZeMFolderRef& folder : user->folders()) {
        names.push_back(folder->name() + "<" + folder->parent() + ">" +
                        std::to_string(folder->children()));
    }
    EXPECT_EQ((std::vector<std::string>{"INBOX<>0", "Sent<>0", "Trash<>0", "archive<>0", "Work<>1",
                                        "Work/2019<Work>0"}),
              names);
    // Listed once: a folder made later is not seen by the same user.
    make_folder(id, "Later");
    user->init_folders();
    EXPECT_EQ(6u, user->folders().size());
}

TEST_F(DirectUser, QuotaComesFromTheSizeFileInKibRoundedUp) {
    const ZeMailUserId id(MAILBOX_TYPE_DEFAULT, "ann");
    make_folder(id, "Inbox");
    ZeMUserRef user = ZeMUserRef::createDirect("ann");
    long long count = -1;
    long long kbytes = -1;
    EXPECT_EQ(VTL_SIZE_UNREADABLE, user->get_quota(&count, &kbytes));
    EXPECT_EQ(-1, count);
    m_root.write(id.mailpath().substr(m_root.path().size() + 1) + "/.maildirsize",
                 "0S\n1025 2\n100 1\n");
    EXPECT_EQ(0, user->get_quota(&count, &kbytes));
    EXPECT_EQ(3, count);
    EXPECT_EQ(2, kbytes);  // 1125 bytes
    EXPECT_EQ(0, user->get_quota(nullptr, nullptr));
    EXPECT_EQ(2, user->get_usage());
    EXPECT_EQ(0, user->calculateSize(false));

    ZeMUserRef rotated = ZeMUserRef::createDirect(MAILBOX_TYPE_ROTATED, "ann");
    EXPECT_EQ(-1, rotated->get_quota(&count, &kbytes));
    EXPECT_EQ(0, rotated->get_folder_usage("current"));
}

TEST_F(DirectUser, FolderUsageReadsTheSizeCacheEvenWhenBrokenOrCountsPlainTrees) {
    const ZeMailUserId imap_user(MAILBOX_TYPE_DEFAULT, "ann");
    const std::string work = make_folder(imap_user, "Work");
    ZeMUserRef ann = ZeMUserRef::createDirect("ann");
    EXPECT_EQ(0, ann->get_folder_usage(""));
    EXPECT_EQ(0, ann->get_folder_usage("Missing"));
    EXPECT_EQ(0, ann->get_folder_usage("Work"));  // no cache: recount asked, 0 now
    m_root.write(work.substr(m_root.path().size() + 1) + "/.vt_folder_size", "0S\n3000 3\n");
    EXPECT_EQ(3, ann->get_folder_usage("Work"));

    // A plain Maildir tree without a cache is counted, and the Maildir's
    // cache dropped; a broken folder cache answers 0 and is left alone.
    const ZeMailUserId tree_user(MAILBOX_TYPE_MAILDIR, "tom");
    const std::string box = make_folder(tree_user, "Box");
    const std::string relative = box.substr(m_root.path().size() + 1);
    m_root.write(relative + "/cur/1.a:2,S", std::string(2000, 'x'));
    ZeMUserRef tom = ZeMUserRef::createDirect(MAILBOX_TYPE_MAILDIR, "tom");
    EXPECT_EQ(2, tom->get_folder_usage("Box"));
    m_root.write(relative + "/.vt_folder_size", "broken");
    EXPECT_EQ(0, tom->get_folder_usage("Box"));
    EXPECT_EQ("broken", zetest::read_file(box + "/.vt_folder_size"));
}

TEST_F(DirectUser, APlainMaildirTreeIsScannedForFolders) {
    const ZeMailUserId id(MAILBOX_TYPE_MAILDIR, "tom");
    make_folder(id, "Inbox");
    make_folder(id, "Projects");
    make_folder(id, "Projects/Old");
    ZeMUserRef tom = ZeMUserRef::createDirect(MAILBOX_TYPE_MAILDIR, "tom");
    tom->init_folders();
    std::vector<std::string> names;
    for (const ZeMFolderRef& folder : tom->folders()) {
        names.push_back(folder->name());
    }
    EXPECT_EQ((std::vector<std::string>{"Projects", "Projects/Old"}), names);
    EXPECT_EQ(1, tom->folders().front()->children());
}

// ------------------------------------------------------------ the factory

TEST(MailboxFactory, ImapMailboxesByTypeAndRefusedNames) {
    ZeMailBoxRef plain = ZeMailBoxRef::create("ann", "Work", MAILBOX_OPEN_IMAP);
    ASSERT_FALSE(plain.isNull());
    EXPECT_NE(nullptr, dynamic_cast<ZeMailBoxImap*>(plain.get()));
    EXPECT_EQ("Work", plain->mailfolder());
    EXPECT_EQ("ann", plain->username());
    EXPECT_EQ(1, plain->userType());
    EXPECT_EQ("\"Work\"", dynamic_cast<ZeMailBoxImap*>(plain.get())->quoted_folder());

    EXPECT_TRUE(ZeMailBoxRef::create("ann", "../Work", MAILBOX_OPEN_IMAP).isNull());
    EXPECT_TRUE(ZeMailBoxRef::create("ann", "Work/../../x", MAILBOX_OPEN_IMAP).isNull());
    EXPECT_TRUE(ZeMailBoxRef::create("ann", "Work", static_cast<MailboxOpenMethod>(0)).isNull());

    ZeMailBoxRef dead =
        ZeMailBoxRef::create(static_cast<MailBoxType>(2), "ann", "Inbox", MAILBOX_OPEN_IMAP);
    ASSERT_FALSE(dead.isNull());
    EXPECT_EQ("dead.letter", dead->mailfolder());
    EXPECT_EQ(2, dead->userType());
    for (int type : {1, 3, 4, 6, 7, 8, 11}) {
        ZeMailBoxRef made =
            ZeMailBoxRef::create(static_cast<MailBoxType>(type), "ann", "Work", MAILBOX_OPEN_IMAP);
        ASSERT_FALSE(made.isNull()) << type;
        EXPECT_EQ("Work", made->mailfolder());
        EXPECT_EQ(type, made->userType());
    }
    for (int type : {0, 9, 12, 40}) {
        EXPECT_TRUE(
            ZeMailBoxRef::create(static_cast<MailBoxType>(type), "ann", "Work", MAILBOX_OPEN_IMAP)
                .isNull())
            << type;
    }

    ZeMailBoxRef by_id = ZeMailBoxRef::create(ZeMailUserId(MAILBOX_TYPE_DEFAULT, "bob"), "Sent",
                                              MAILBOX_OPEN_IMAP, ZeMailBoxRef::MAILBOX_OP_CREATE);
    EXPECT_EQ("bob", by_id->username());
}

TEST(MailboxFactory, DirectMailboxesNeedAStoreOfAKnownKind) {
    zetest::TempDir root;
    zemail::paths::set_mail_root(root.path());
    const ZeMailUserId id(MAILBOX_TYPE_DEFAULT, "ann");
    // Neither a Maildir nor an mbox file there.
    EXPECT_TRUE(ZeMailBoxRef::create("ann", "Work", MAILBOX_OPEN_DIRECT).isNull());
    root.write(id.mailfolder("Plain").substr(root.path().size() + 1), "not a mailbox\n");
    EXPECT_TRUE(ZeMailBoxRef::create("ann", "Plain", MAILBOX_OPEN_DIRECT).isNull());
    EXPECT_TRUE(
        ZeMailBoxRef::create(MAILBOX_TYPE_ROTATED, "ann", "current", MAILBOX_OPEN_DIRECT).isNull());
    ASSERT_EQ(0, vtl_mkdir_maildir(id.mailfolder("Work"), 0700));
    ZeMailBoxRef work = ZeMailBoxRef::create("ann", "Work", MAILBOX_OPEN_DIRECT);
    ASSERT_FALSE(work.isNull());
    EXPECT_EQ(MAILBOX_OPEN_DIRECT, work->open_method());
    EXPECT_EQ("Work", work->mailfolder());  // the name, not the directory
    ZeMailBoxRef by_path = ZeMailBoxRef::create(id.mailfolder("Work"), MAILBOX_OPEN_DIRECT);
    ASSERT_FALSE(by_path.isNull());
    EXPECT_EQ(id.mailfolder("Work"), by_path->mailfolder());
    ZeMailBoxRef typed =
        ZeMailBoxRef::create(static_cast<MailBoxType>(5), "ann", "Work", MAILBOX_OPEN_IMAP);
    ASSERT_FALSE(typed.isNull());
    EXPECT_EQ(MAILBOX_OPEN_DIRECT, typed->open_method());  // type 5 is always direct
}

// ------------------------------------------------------------ the mailbox base

// A mailbox that records what the base's defaults pass on to it.
class RecordingMailbox : public ZeMailboxBase {
public:
    explicit RecordingMailbox(MailboxOpenMethod method) : m_method(method) {}
    int open() override { return 1; }
    void reset() override {}
    int expunge() override { return 0; }
    int clean() override { return 0; }
    long total_messages() override { return 0; }
    int next() override { return 0; }
    ZeMessageRef retrieve_message(unsigned long) override { return ZeMessageRef(); }
    ZeMessageRef retrieve_message(const std::string&) override { return ZeMessageRef(); }
    int modify_message(const std::string& key, const ZeMessageFlags&) override {
        calls.push_back("modify " + key);
        return 0;
    }
    using ZeMailboxBase::modify_message;
    using ZeMailboxBase::retrieve_section;
    using ZeMailboxBase::retrieve_section_mime;
    int retrieve_section(std::ostream& out, unsigned long uid,
                         const std::string& section) override {
        if (m_method == MAILBOX_OPEN_DIRECT) {
            return ZeMailboxBase::retrieve_section(out, uid, section);
        }
        calls.push_back("section uid " + std::to_string(uid) + " " + section);
        out << "<" << uid << ":" << section << ">";
        return 0;
    }
    int retrieve_section(std::ostream& out, const std::string& key,
                         const std::string& section) override {
        if (m_method == MAILBOX_OPEN_IMAP) {
            return ZeMailboxBase::retrieve_section(out, key, section);
        }
        calls.push_back("section key " + key + " " + section);
        out << "[" << key << "]";
        return 0;
    }
    int retrieve_body(std::ostream&, unsigned long) override { return 0; }
    ZeImapMimeRef retrieve_section_mime(unsigned long uid, const std::string& section) override {
        calls.push_back("mime uid " + std::to_string(uid) + " " + section);
        return ZeImapMimeRef::create(Corvane::ContentType::TEXT,
                                     Corvane::ContentType::UNKNOWN_SUBTYPE);
    }
    MailboxOpenMethod open_method() override { return m_method; }

    std::vector<std::string> calls;

private:
    MailboxOpenMethod m_method;
};

TEST(MailboxBase, ModifyByUidFormatsTheKeyAndRefusesZero) {
    RecordingMailbox box(MAILBOX_OPEN_IMAP);
    EXPECT_EQ(4, box.modify_message(0UL, ZeMessageFlags(ZeMessageFlags::SEEN)));
    EXPECT_EQ(0, box.modify_message(4294967296UL, ZeMessageFlags(ZeMessageFlags::SEEN)));
    EXPECT_EQ((std::vector<std::string>{"modify 4294967296"}), box.calls);
}

TEST(MailboxBase, SectionsRouteByOpenMethod) {
    RecordingMailbox imap(MAILBOX_OPEN_IMAP);
    Corvane::Buffer buffer(std::string("x"));
    EXPECT_EQ(0, imap.retrieve_section(buffer, 0UL, "1"));
    EXPECT_EQ("x", buffer.str());
    EXPECT_EQ(0, imap.retrieve_section(buffer, 7UL, "2.1"));
    EXPECT_EQ("x<7:2.1>", buffer.str());
    std::ostringstream out;
    EXPECT_EQ(0, imap.retrieve_section(out, std::string("12"), "3"));
    EXPECT_EQ(0, imap.retrieve_section(out, std::string("0"), "3"));
    EXPECT_EQ(0, imap.retrieve_section(out, std::string("12x"), "3"));
    EXPECT_EQ("<12:3>", out.str());
    EXPECT_FALSE(imap.retrieve_section_mime(std::string("5"), "1").isNull());
    EXPECT_TRUE(imap.retrieve_section_mime(std::string("0"), "1").isNull());
    EXPECT_EQ((std::vector<std::string>{"section uid 7 2.1", "section uid 12 3", "mime uid 5 1"}),
              imap.calls);

    RecordingMailbox direct(MAILBOX_OPEN_DIRECT);
    Corvane::Buffer into;
    EXPECT_EQ(0, direct.retrieve_section(into, 9UL, "1"));
    EXPECT_EQ("[,U9]", into.str());
    std::ostringstream by_uid;
    EXPECT_EQ(0, direct.retrieve_section(by_uid, 3UL, "2"));  // the base's body
    EXPECT_EQ("[,U3]", by_uid.str());
    EXPECT_TRUE(direct.retrieve_section_mime(std::string("5"), "1").isNull());
    EXPECT_EQ((std::vector<std::string>{"section key ,U9 1", "section key ,U3 2"}), direct.calls);
}

TEST(MailboxBase, ScopesAndFiltersAreCombinedOnDemandAndSetFilterDoesNothing) {
    RecordingMailbox box(MAILBOX_OPEN_IMAP);
    box.setFilter(zetest::subject_filter("a"));
    EXPECT_TRUE(box.scope_filter().isNull());
    box.andFilter(ZeMFilterRef());
    box.setScope(ZeMScopeRef());
    EXPECT_TRUE(box.scope_filter().isNull());
    box.andFilter(zetest::subject_filter("a"));
    ASSERT_FALSE(box.scope_filter().isNull());
    box.orFilter(zetest::subject_filter("b"));
    box.setScope(zetest::RangeScope::make(0, 5));
    EXPECT_EQ(2u, box.scope_filter()->filter_count());
    long start = -1;
    long end = -1;
    EXPECT_TRUE(box.scope_filter()->range(start, end));
    EXPECT_EQ(5, end);

    ZeMScopeAndFilterRef shared = ZeMScopeAndFilterRef::createScopeAndFilter();
    box.setScopeAndFilter(shared);
    EXPECT_EQ(shared, box.scope_filter());
    EXPECT_FALSE(box.scope_filter()->has_filter());
}

// ------------------------------------------------------------ messages and iteration

// An envelope that cannot tell its date.
class SilentEnv : public ZeMessageImapEnv {
public:
    SilentEnv() : ZeMessageImapEnv(1, "b", 5, 10, "<id>", "f", ZeMessageFlags()) {}
    time_t date() override {
        throw Corvane::Exception(" SilentEnv::date - Not Implimented", 4, "SilentEnv", 1);
    }
};

class SilentMessage : public ZeMessageBase {
public:
    SilentMessage() { m_env = Corvane::Ref<ZeMessageEnv>::adopt(new SilentEnv()); }
};

TEST(Messages, HandleHelpersNeverThrow) {
    ZeMessageRef none;
    EXPECT_EQ(nullptr, ZeMessageRef::headerValue(none, "From"));
    EXPECT_EQ(0, ZeMessageRef::time(none));
    EXPECT_EQ(nullptr, none.direct_message());
    EXPECT_TRUE(none.media().isNull());

    Corvane::HeaderContainer headers;
    headers.add("Subject", "hello");
    headers.add("Message-ID", "<m1@x>");
    ZeMessageRef imap(new ZeMessageImap(7, "base", headers, 1234, 99));
    EXPECT_STREQ("hello", ZeMessageRef::headerValue(imap, "subject"));
    EXPECT_EQ(nullptr, ZeMessageRef::headerValue(imap, "X-Missing"));
    EXPECT_EQ(nullptr, ZeMessageRef::headerValue(imap, nullptr));
    EXPECT_EQ(1234, ZeMessageRef::time(imap));
    EXPECT_EQ(nullptr, imap.direct_message());
    EXPECT_TRUE(imap.media().isNull());
    EXPECT_EQ("<m1@x>", imap->env()->msgID());  // from the Message-ID field

    // The flag value is replaced whole, and the envelope follows.
    imap->flags(ZeMessageFlags(ZeMessageFlags::SEEN, ZeMessageFlags::ADD));
    EXPECT_EQ(ZeMessageFlags::ADD, imap->flags().action);
    EXPECT_EQ(ZeMessageFlags::SEEN, imap->env()->status().flags);

    ZeMessageRef silent(new SilentMessage());
    EXPECT_EQ(0, ZeMessageRef::time(silent));
}

// A mailbox over a fixed list of messages.
class ListMailbox : public RecordingMailbox {
public:
    ListMailbox() : RecordingMailbox(MAILBOX_OPEN_IMAP) {}
    void reset() override {
        ++resets;
        m_at = 0;
    }
    int next() override {
        if (m_at >= messages.size()) {
            m_current.release();
            return 0;
        }
        m_current = messages[m_at++];
        return 1;
    }
    std::vector<ZeMessageRef> messages;
    int resets = 0;

private:
    std::size_t m_at = 0;
};

TEST(Messages, TheIteratorRewindsWalksAndReleases) {
    auto* list = new ListMailbox();
    ZeMailBoxRef box(Corvane::Ref<ZeMailboxBase>::adopt(list));
    ZeMessageRef first(new ZeMessageImap(1, "", Corvane::HeaderContainer(), 0, 0));
    list->messages = {first, ZeMessageRef(new ZeMessageImap(2, "", {}, 0, 0))};
    std::vector<unsigned long> seen;
    {
        MailIterator it(box);
        EXPECT_EQ(1, list->resets);
        while (it.next()) {
            seen.push_back(it.message()->uid());
        }
        EXPECT_TRUE(it.message().isNull());
        EXPECT_EQ(2, box->ref_count());  // ours and the iterator's
    }
    EXPECT_EQ((std::vector<unsigned long>{1, 2}), seen);
    EXPECT_EQ(1, box->ref_count());
    MailIterator empty{ZeMailBoxRef()};
    EXPECT_FALSE(empty.next());
}

// ------------------------------------------------------------ scope and filter

TEST(ScopeAndFilter, CriteriaJoinScopeThenFiltersLeftToRight) {
    ZeMScopeAndFilterRef both = ZeMScopeAndFilterRef::createScopeAndFilter();
    EXPECT_EQ("", both->imap_criteria());
    both->andFilter(zetest::subject_filter("a"));
    EXPECT_EQ("(SUBJECT \"a\")", both->imap_criteria());
    both->orFilter(zetest::subject_filter("b"));
    both->andFilter(zetest::subject_filter("c"));
    EXPECT_EQ("(OR (SUBJECT \"a\") (SUBJECT \"b\")) (SUBJECT \"c\")", both->imap_criteria());
    both->setScope(ZeMScopeRef(
        Corvane::Ref<ZeMScopeImpl>::adopt(new zetest::SubjectScope("SINCE 1-Jan-2024", "any"))));
    EXPECT_EQ("(SINCE 1-Jan-2024) (OR (SUBJECT \"a\") (SUBJECT \"b\")) (SUBJECT \"c\")",
              both->imap_criteria());

    // A term with no criteria stands for every message.
    ZeMScopeAndFilterRef any = ZeMScopeAndFilterRef::createScopeAndFilter();
    any->andFilter(zetest::subject_filter("a"));
    any->orFilter(
        ZeMFilterRef(Corvane::Ref<ZeMFilterImpl>::adopt(new zetest::SubjectFilter("", ""))));
    EXPECT_EQ("", any->imap_criteria());
    any->andFilter(zetest::subject_filter("d"));
    EXPECT_EQ("(SUBJECT \"d\")", any->imap_criteria());
    any->setScope(zetest::RangeScope::make(0, 3));
    EXPECT_EQ("(SUBJECT \"d\")", any->imap_criteria());
}

TEST(ScopeAndFilter, MatchesCombineLikeTheCriteriaAndWalkStateIsForwarded) {
    Corvane::HeaderContainer headers;
    headers.add("Subject", "b");
    ZeMessageImap message(1, "", headers, 0, 0);

    ZeMScopeAndFilterRef sf = ZeMScopeAndFilterRef::createScopeAndFilter();
    EXPECT_TRUE(sf->match(message));  // nothing narrows
    zetest::SubjectFilter* a = nullptr;
    sf->andFilter(zetest::subject_filter("a", &a));
    EXPECT_FALSE(sf->match(message));
    sf->orFilter(zetest::subject_filter("b"));
    EXPECT_TRUE(sf->match(message));
    sf->andFilter(zetest::subject_filter("c"));
    EXPECT_FALSE(sf->match(message));  // (a OR b) AND c
    EXPECT_TRUE(sf->match(*message.env()));

    auto* scope = new zetest::SubjectScope("", "other");
    sf->setScope(ZeMScopeRef(Corvane::Ref<ZeMScopeImpl>::adopt(scope)));
    EXPECT_FALSE(sf->done());
    scope->finished = true;
    EXPECT_TRUE(sf->done());
    sf->reset();
    EXPECT_EQ(1, scope->resets);
    EXPECT_EQ(1, a->resets);
    long start = 0;
    long end = 0;
    EXPECT_FALSE(sf->range(start, end));
}

}  // namespace

namespace {

class SectionNames : public ZeMessageSectionVisitor {
public:
    int visit(ZeMessageRef&, const ZeImapMimeRef& part, Corvane::MediaIn& content) override {
        seen.push_back(part->section() + "=" + content.readAll());
        return part->section() == stop_at ? 9 : 0;
    }
    std::vector<std::string> seen;
    std::string stop_at = "none";
};

ZeImapMimeRef node(const std::string& section) {
    ZeImapMimeRef made =
        ZeImapMimeRef::create(Corvane::ContentType::TEXT, Corvane::ContentType::UNKNOWN_SUBTYPE);
    made->set_section(section);
    return made;
}

TEST(Sections, TheWalkGoesNodeBeforeChildrenAndStopsOnRequest) {
    ZeImapMimeRef root = node("");
    ZeImapMimeRef one = node("1");
    ZeImapMimeRef two = node("2");
    ZeImapMimeRef two_one = node("2.1");
    ZeImapMimeRef three = node("3");
    two->add_child(two_one);
    root->add_child(one);
    root->add_child(two);
    root->add_child(three);
    ZeMessageRef message;
    const auto content = [](const ZeImapMimeRef& part) {
        return Corvane::MediaIn::fromString("<" + part->section() + ">");
    };
    SectionNames all;
    EXPECT_EQ(0, ze_visit_sections(message, root, all, content));
    EXPECT_EQ((std::vector<std::string>{"=<>", "1=<1>", "2=<2>", "2.1=<2.1>", "3=<3>"}), all.seen);

    SectionNames stopped;
    stopped.stop_at = "2.1";
    EXPECT_EQ(9, ze_visit_sections(message, root, stopped, content));
    EXPECT_EQ(4u, stopped.seen.size());

    SectionNames none;
    EXPECT_EQ(0, ze_visit_sections(message, ZeImapMimeRef(), none, content));
    EXPECT_TRUE(none.seen.empty());
}

}  // namespace
