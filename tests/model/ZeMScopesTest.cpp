// Scopes and filters without a server: the criteria texts, the refusal of
// text that could break out of a quoted string, and the local matches at their
// boundaries (days, positions, flags, decoded headers and bodies, MIME trees).
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "model/ZeMFilters.h"
#include "model/ZeMScopes.h"
#include "model/ZeMailBox.h"
#include "support/Exception.h"
#include "support/TestUtil.h"
#include "tests/model/ZeMScopesTestSupport.h"

namespace {

// An envelope whose answers the test sets; throw_all makes every answer the
// "Not Implimented" exception some stores give.
class Env : public ZeMessageEnv {
public:
    ZeMessageFlags status() override { return _check(ZeMessageFlags(flags)); }
    std::string msgID() override { return _check(std::string("file-name-not-an-id")); }
    unsigned long uid() override { return _check(uid_value); }
    std::string basename() const override {
        if (throw_all) {
            throw Corvane::Exception(" Env::basename - Not Implimented", 4);
        }
        return base;
    }
    time_t date() override { return _check(time); }
    std::string from() override { return _check(std::string()); }
    unsigned long size() override { return _check(0UL); }

    unsigned long flags = 0;
    unsigned long uid_value = 0;
    std::string base;
    time_t time = 0;
    bool throw_all = false;

private:
    template <class T>
    T _check(T value) const {
        if (throw_all) {
            throw Corvane::Exception(" Env::operation - Not Implimented", 4);
        }
        return value;
    }
};

// A message kept in memory, with the envelope above.
class Message : public zetest::DirectMessage {
public:
    explicit Message(const std::string& text, unsigned long flags = 0)
        : zetest::DirectMessage("", text) {
        m_flags.flags = flags;
        m_env = Corvane::Ref<ZeMessageEnv>::adopt(new Env());
    }
    Env& envelope() { return *dynamic_cast<Env*>(m_env.get()); }
};

// A message that is not a direct message: headers only.
class HeaderOnly : public ZeMessageBase {
public:
    explicit HeaderOnly(const std::string& text) { m_headers.parse(text.data(), text.size()); }
};

// The search keys of a criteria text as a strict IMAP reader sees them: atoms,
// "(" and ")", and quoted strings unescaped (prefixed with '"'). A quoted
// string that escapes anything but '"' and '\', or that is not closed, gives
// the token "!bad".
std::vector<std::string> keys(const std::string& text) {
    std::vector<std::string> out;
    for (std::size_t i = 0; i < text.size();) {
        const char c = text[i];
        if (c == ' ') {
            ++i;
        } else if (c == '(' || c == ')') {
            out.emplace_back(1, c);
            ++i;
        } else if (c == '"') {
            std::string value = "\"";
            for (++i; i < text.size() && text[i] != '"'; ++i) {
                if (text[i] == '\\') {
                    if (i + 1 >= text.size() || (text[i + 1] != '"' && text[i + 1] != '\\')) {
                        return {"!bad"};
                    }
                    ++i;
                }
                value += text[i];
            }
            if (i >= text.size()) {
                return {"!bad"};
            }
            ++i;
            out.push_back(value);
        } else {
            const std::size_t end = text.find_first_of(" ()\"", i);
            out.push_back(text.substr(i, end - i));
            i = end == std::string::npos ? text.size() : end;
        }
    }
    return out;
}

}  // namespace

TEST(ZeMSearchText, QuotingAndRefusedText) {
    EXPECT_EQ("\"a\\\"b\\\\c\"", zem_search::quoted("a\"b\\c"));
    EXPECT_EQ("Subject", zem_search::astring("Subject"));
    EXPECT_EQ("\"X(y)\"", zem_search::astring("X(y)"));

    EXPECT_TRUE(zem_search::searchable(""));
    EXPECT_TRUE(
        zem_search::searchable("Gr\xC3\xBC\xC3\x9F"
                               "e \xF0\x9F\x93\x8E"));
    EXPECT_TRUE(zem_search::searchable(std::string(zem_search::kMaxTextBytes, 'a')));
    EXPECT_FALSE(zem_search::searchable(std::string(zem_search::kMaxTextBytes + 1, 'a')));
    for (const std::string& bad :
         {std::string("a\rb"), std::string("a\nb"), std::string("a\0b", 3), std::string("\xC3"),
          std::string("\xC0\xAF"), std::string("\xED\xA0\x80"), std::string("\xF4\x90\x80\x80"),
          std::string("\xE0\x80\xAF"), std::string("\x80"), std::string("\xFF")}) {
        EXPECT_FALSE(zem_search::searchable(bad)) << bad;
        EXPECT_TRUE(FZeMSearchText::create(bad).isNull());
        EXPECT_TRUE(FZeMHeader::create("Subject", bad).isNull());
        EXPECT_TRUE(ZeMScopeMessageId::create(bad).isNull());
    }
    EXPECT_TRUE(FZeMHeader::create("Sub:ject", "x").isNull());
    EXPECT_TRUE(FZeMHeader::create("", "x").isNull());
    EXPECT_TRUE(FZeMHeader::create("Sub ject", "x").isNull());

    EXPECT_TRUE(zem_search::contains("Hello WORLD", "o wor"));
    EXPECT_TRUE(zem_search::contains("", ""));
    EXPECT_FALSE(zem_search::contains("", "a"));
    EXPECT_FALSE(zem_search::contains("\xC3\x9C", "\xC3\xBC"));  // non-ASCII: exact
}

// Hostile text stays one quoted string: the criteria read back as exactly the
// keys the filter means, with the caller's text intact.
TEST(ZeMSearchText, CallerTextCannotAddKeys) {
    const std::string evil = "x\" OR ALL \"\\\" (DELETED) \\";
    EXPECT_EQ((std::vector<std::string>{"TEXT", "\"" + evil}),
              keys(FZeMSearchText::create(evil)->imap_criteria()));
    EXPECT_EQ((std::vector<std::string>{"SUBJECT", "\"" + evil}),
              keys(FZeMHeader::create("subject", evil)->imap_criteria()));
    EXPECT_EQ((std::vector<std::string>{"HEADER", "\"X(a)", "\"" + evil}),
              keys(FZeMHeader::create("X(a)", evil)->imap_criteria()));
    EXPECT_EQ((std::vector<std::string>{"HEADER", "Message-ID", "\"<" + evil + ">"}),
              keys(ZeMScopeMessageId::create(evil)->imap_criteria()));
}

TEST(ZeMScopes, UidAndExpectationEndTheWalk) {
    EXPECT_TRUE(ZeMScopeUid::create(0).isNull());
    ZeMScopeRef uid = ZeMScopeUid::create(17);
    EXPECT_EQ("UID 17", uid->imap_criteria());
    long start = 0, end = 0;
    EXPECT_FALSE(uid->range(start, end));

    Message other("Subject: a\n\n");
    other.set_uid(16);
    Message mine("Subject: b\n\n");
    mine.envelope().uid_value = 17;  // message UID 0: the envelope's counts
    EXPECT_FALSE(uid->match(other));
    EXPECT_FALSE(uid->done());
    EXPECT_TRUE(uid->match(mine));
    EXPECT_TRUE(uid->done());
    uid->reset();
    EXPECT_FALSE(uid->done());
    Env unknown;
    unknown.throw_all = true;
    EXPECT_TRUE(uid->match(unknown));  // cannot tell: the message decides
    EXPECT_FALSE(uid->done());

    ZeMScopeRef expect = ZeMScopeExpect::create({0, 1, 2, 3, 5, 7, 8, 10});
    EXPECT_EQ("UID 1:3,5,7:8,10", expect->imap_criteria());
    EXPECT_EQ("UID 4294967295", ZeMScopeUid::create(4294967295UL)->imap_criteria());
    Env env;
    env.uid_value = 4;
    EXPECT_FALSE(expect->match(env));
    env.uid_value = 5;
    EXPECT_TRUE(expect->match(env));
    EXPECT_FALSE(expect->done());  // the envelope test does not count
    for (unsigned long u : {1, 2, 3, 5, 7, 8}) {
        other.set_uid(u);
        EXPECT_TRUE(expect->match(other));
        EXPECT_TRUE(expect->match(other));  // seen twice still counts once
    }
    EXPECT_FALSE(expect->done());
    other.set_uid(10);
    EXPECT_TRUE(expect->match(other));
    EXPECT_TRUE(expect->done());
    expect->reset();
    EXPECT_FALSE(expect->done());

    ZeMScopeRef none = ZeMScopeExpect::create({0});
    EXPECT_EQ("NOT ALL", none->imap_criteria());
    EXPECT_TRUE(none->done());
    EXPECT_FALSE(none->match(other));
}

TEST(ZeMScopes, RangeCountsPositionsUpToItsEnd) {
    EXPECT_TRUE(ZeMScopeRange::create(-1, 5).isNull());
    EXPECT_TRUE(ZeMScopeRange::create(5, 4).isNull());
    ZeMScopeRef range = ZeMScopeRange::create(2, 5);
    long start = 0, end = 0;
    ASSERT_TRUE(range->range(start, end));
    EXPECT_EQ(2, start);
    EXPECT_EQ(5, end);
    EXPECT_EQ("", range->imap_criteria());

    Message message("Subject: x\n\n");
    std::vector<bool> taken;
    while (!range->done()) {
        taken.push_back(range->match(message));
    }
    EXPECT_EQ((std::vector<bool>{false, false, true, true, true}), taken);
    range->reset();
    EXPECT_FALSE(range->done());
    EXPECT_FALSE(range->match(message));

    ZeMScopeRef empty = ZeMScopeRange::create(2, 2);  // an empty page
    EXPECT_FALSE(empty->match(message));
    EXPECT_FALSE(empty->match(message));
    EXPECT_TRUE(empty->done());
}

TEST(ZeMScopes, DatesAtTheirDayBoundaries) {
    EXPECT_TRUE(ZeMScopeDate::create(ZeMScopeDate::ON, 2023, 2, 29).isNull());
    EXPECT_FALSE(ZeMScopeDate::create(ZeMScopeDate::ON, 2024, 2, 29).isNull());
    EXPECT_FALSE(ZeMScopeDate::create(ZeMScopeDate::ON, 2000, 2, 29).isNull());
    EXPECT_TRUE(ZeMScopeDate::create(ZeMScopeDate::ON, 1900, 2, 29).isNull());
    EXPECT_TRUE(ZeMScopeDate::create(ZeMScopeDate::SINCE, 2024, 13, 1).isNull());
    EXPECT_TRUE(ZeMScopeDate::create(ZeMScopeDate::SINCE, 2024, 4, 31).isNull());
    EXPECT_TRUE(ZeMScopeDate::create(ZeMScopeDate::SINCE, 2024, 1, 0).isNull());
    EXPECT_TRUE(ZeMScopeDate::create(ZeMScopeDate::SINCE, 10000, 1, 1).isNull());
    EXPECT_TRUE(ZeMScopeDate::between(2024, 1, 1, 2024, 0, 1).isNull());

    ZeMScopeRef since = ZeMScopeDate::create(ZeMScopeDate::SINCE, 2024, 1, 1);
    ZeMScopeRef before = ZeMScopeDate::create(ZeMScopeDate::BEFORE, 2024, 3, 5);
    ZeMScopeRef on = ZeMScopeDate::create(ZeMScopeDate::ON, 2024, 2, 29);
    ZeMScopeRef between = ZeMScopeDate::between(2024, 1, 1, 2024, 2, 1);
    EXPECT_EQ("SINCE 1-Jan-2024", since->imap_criteria());
    EXPECT_EQ("BEFORE 5-Mar-2024", before->imap_criteria());
    EXPECT_EQ("ON 29-Feb-2024", on->imap_criteria());
    EXPECT_EQ("(SINCE 1-Jan-2024 BEFORE 1-Feb-2024)", between->imap_criteria());
    EXPECT_EQ("ON 9-Dec-0033",
              ZeMScopeDate::create(ZeMScopeDate::ON, zetest::local_time(33, 12, 9, 12, 0, 0))
                  ->imap_criteria());

    Env env;
    EXPECT_TRUE(on->match(env));  // no date on the envelope: the message decides

    // The message's time: its envelope's date, else its received time.
    Message message("Subject: x\n\n");
    message.set_received(zetest::local_time(2024, 2, 29, 8, 0, 0));
    EXPECT_TRUE(on->match(message));
    message.envelope().time = zetest::local_time(2024, 3, 1, 8, 0, 0);
    EXPECT_FALSE(on->match(message));
    EXPECT_FALSE(on->done());
}

TEST(ZeMScopes, MessageIdIsDecidedOnTheHeader) {
    EXPECT_TRUE(ZeMScopeMessageId::create("").isNull());
    EXPECT_TRUE(ZeMScopeMessageId::create("<>").isNull());
    EXPECT_EQ(
        "<a@b>",
        dynamic_cast<ZeMScopeMessageId*>(ZeMScopeMessageId::create("<a@b>").get())->message_id());
    ZeMScopeRef id = ZeMScopeMessageId::create("A@B");
    EXPECT_EQ("HEADER Message-ID \"<A@B>\"", id->imap_criteria());

    Env env;
    EXPECT_TRUE(id->match(env));  // a store's msgID() may be a file name
    Message yes("Message-ID:\n <a@b>\nSubject: x\n\n");
    Message longer("Message-ID: <xa@b>\n\n");
    Message none("Subject: <a@b>\n\n");
    EXPECT_TRUE(id->match(yes));
    EXPECT_FALSE(id->match(longer));
    EXPECT_FALSE(id->match(none));
}

TEST(ZeMScopes, BasenameByUniquePartAndUidList) {
    EXPECT_EQ("1700.M1P1.host", ZeMScopeBasename::unique_part("1700.M1P1.host,S=12:2,S"));
    EXPECT_EQ("1700.M1P1.host", ZeMScopeBasename::unique_part("1700.M1P1.host:2,S"));
    EXPECT_TRUE(ZeMScopeBasename::create("").isNull());
    EXPECT_TRUE(ZeMScopeBasename::create(",S=1").isNull());
    EXPECT_TRUE(ZeMScopeBasename::create("../x").isNull());

    ZeMScopeRef scope = ZeMScopeBasename::create("1700.M1P1.host:2,RS");
    EXPECT_EQ("", scope->imap_criteria());
    Env env;
    env.base = "1700.M1P1.hostX";
    EXPECT_FALSE(scope->match(env));
    env.base = "1700.M1P1.host:2";  // a Maildir base name of a file without ","
    EXPECT_TRUE(scope->match(env));
    EXPECT_TRUE(scope->done());
    scope->reset();
    Message message("Subject: x\n\n");
    message.set_basename("1700.M1P1.host");
    EXPECT_TRUE(scope->match(message));
    EXPECT_TRUE(scope->done());

    zetest::TempDir dir;
    dir.write(".dovecot-uidlist", "3 V1 N9 Gx\n4 :1699.M0P1.host\n7 W12 :1700.M1P1.host,S=12\n");
    EXPECT_EQ("UID 7", ZeMScopeBasename::create("1700.M1P1.host:2,S", dir.path())->imap_criteria());
    EXPECT_EQ("NOT ALL", ZeMScopeBasename::create("1800.M1P1.host", dir.path())->imap_criteria());
}

// Text, header and status matching against real messages is proven in
// ZeMScopesDovecotTest; here what no message on the server can show.
TEST(ZeMFilters, TextHeaderAndStatusEdges) {
    HeaderOnly headers("Subject: hello\n\nbody text\n");  // not a direct message
    EXPECT_TRUE(FZeMSearchText::create("subject: HELLO")->match(headers));
    EXPECT_FALSE(FZeMSearchText::create("body")->match(headers));
    Env env;
    EXPECT_TRUE(FZeMSearchText::create("nothing")->match(env));

    EXPECT_EQ("FROM \"ann\"", FZeMHeader::create("from", "ann")->imap_criteria());
    EXPECT_EQ("HEADER X-Spam \"yes\"", FZeMHeader::create("X-Spam", "yes")->imap_criteria());
    Message empty("Subject:\n\n");
    EXPECT_TRUE(FZeMHeader::create("Subject", "")->match(empty));  // present, empty
    EXPECT_FALSE(FZeMHeader::create("Subject", " ")->match(empty));

    using F = ZeMessageFlags;
    EXPECT_TRUE(FZeMStatus::create(F(F::SEEN, F::ADD)).isNull());
    EXPECT_TRUE(FZeMStatus::create(F(F::SEEN, 7)).isNull());
    ZeMFilterRef set = FZeMStatus::create(F(F::SEEN | F::LABEL1 | F::MAILDIR_X, F::ALL_SET));
    EXPECT_EQ("(SEEN KEYWORD $label1)", set->imap_criteria());
    EXPECT_EQ("(NOT (  UNKEYWORD $label1 UNKEYWORD $label2 ))",
              FZeMStatus::create(F(F::LABEL1 | (F::LABEL1 << 1), F::ANY_KEYWORD))->imap_criteria());
    ZeMFilterRef low_only = FZeMStatus::create(F(F::SEEN, F::ANY_KEYWORD));
    EXPECT_EQ("ALL", low_only->imap_criteria());
    Message message("Subject: x\n\n", F::SEEN | F::LABEL1);
    EXPECT_TRUE(set->match(message));  // X is never searched, on either side
    EXPECT_TRUE(low_only->match(message));
    message.flags().flags = F::SEEN | F::MAILDIR_X;
    EXPECT_FALSE(set->match(message));
}

TEST(ZeMFilters, AttachmentFromTreeOrTopHeader) {
    using CT = Corvane::ContentType;
    using CD = Corvane::ContentDisposition;
    EXPECT_EQ(
        "OR HEADER Content-Type \"multipart/mixed\" HEADER Content-Disposition "
        "\"attachment\"",
        FZeMAttachment::create()->imap_criteria());
    ZeMFilterRef filter = FZeMAttachment::create();

    const auto tree = [](CT::MediaType media, CT::SubType sub,
                         std::vector<ZeImapMimeRef> children = {}) {
        ZeImapMimeRef node = ZeImapMimeRef::create(media, sub);
        for (ZeImapMimeRef& child : children) {
            node->add_child(child);
        }
        return node;
    };
    Message message("Content-Type: multipart/mixed; boundary=b\n\n");
    // multipart/mixed of text only: the header says yes, the tree says no.
    EXPECT_TRUE(filter->match(message));
    message.mime(
        tree(CT::MULTIPART, CT::MIXED, {tree(CT::TEXT, CT::PLAIN), tree(CT::TEXT, CT::HTML)}));
    EXPECT_FALSE(filter->match(message));

    ZeImapMimeRef named = tree(CT::IMAGE, CT::UNKNOWN_SUBTYPE);
    named->content_type().name = "logo.png";
    message.mime(tree(CT::MULTIPART, CT::UNKNOWN_SUBTYPE, {tree(CT::TEXT, CT::HTML), named}));
    EXPECT_TRUE(filter->match(message));
    named->disposition().type = CD::INLINE;
    EXPECT_FALSE(filter->match(message));

    ZeImapMimeRef forwarded = tree(CT::MESSAGE, CT::RFC822, {tree(CT::TEXT, CT::PLAIN)});
    message.mime(tree(CT::MULTIPART, CT::MIXED, {tree(CT::TEXT, CT::PLAIN), forwarded}));
    EXPECT_TRUE(filter->match(message));

    ZeImapMimeRef single = tree(CT::APPLICATION, CT::UNKNOWN_SUBTYPE);
    single->content_type().name = "a.pdf";
    message.mime(single);
    EXPECT_FALSE(filter->match(message));  // the top part needs a disposition
    single->disposition().type = CD::ATTACHMENT;
    EXPECT_TRUE(filter->match(message));

    // An attachment at the bottom of a deep chain is found.
    ZeImapMimeRef deep = tree(CT::APPLICATION, CT::UNKNOWN_SUBTYPE);
    deep->disposition().filename = "deep.bin";
    for (int i = 0; i < 1000; ++i) {
        deep = tree(CT::MULTIPART, CT::MIXED, {tree(CT::TEXT, CT::PLAIN), deep});
    }
    message.mime(deep);
    EXPECT_TRUE(filter->match(message));

    Message plain("Content-Type: text/plain\nContent-Disposition: ATTACHMENT; filename=a\n\n");
    EXPECT_TRUE(filter->match(plain));
    HeaderOnly none("Content-Type: multipart/alternative; boundary=x\n\n");
    EXPECT_FALSE(filter->match(none));
}
