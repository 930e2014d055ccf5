// The zemail program's command line and output formats.
#include <gtest/gtest.h>

#include <sstream>

#include "tools/zemail/Cli.h"
#include "tools/zemail/Output.h"

namespace {

using zemail::tool::Invocation;
using zemail::tool::Json;
using zemail::tool::parse_command_line;
using zemail::tool::Table;
using zemail::tool::UsageError;

TEST(ZemailCommandLine, OptionsStandBeforeOrAfterTheCommandInBothForms) {
    const Invocation call = parse_command_line(
        {"--user", "ann@example.org", "list", "Work/Projects", "--page=2", "--json", "--unseen"});
    EXPECT_EQ("list", call.command);
    EXPECT_EQ(std::vector<std::string>{"Work/Projects"}, call.args);
    EXPECT_EQ("ann@example.org", call.get("user"));
    EXPECT_EQ(2, call.number("page", 1, 1, 1000));
    EXPECT_EQ(25, call.number("per-page", 25, 1, 1000));
    EXPECT_TRUE(call.has("json"));
    EXPECT_TRUE(call.has("unseen"));
    EXPECT_FALSE(call.has("direct"));

    // After "--" a folder may start with a dash; flag changes may too.
    EXPECT_EQ(std::vector<std::string>{"-odd"}, parse_command_line({"list", "--", "-odd"}).args);
    EXPECT_EQ((std::vector<std::string>{"INBOX", "7", "+Seen", "-Flagged"}),
              parse_command_line({"flag", "INBOX", "7", "+Seen", "-Flagged"}).args);
}

TEST(ZemailCommandLine, MistakesAreOneLineErrorsNamingTheProblem) {
    const auto message = [](std::vector<std::string> argv) {
        try {
            parse_command_line(argv);
        } catch (const UsageError& e) {
            return std::string(e.what());
        }
        return std::string("accepted");
    };
    EXPECT_EQ("unknown command 'lst' (try zemail --help)", message({"lst"}));
    EXPECT_EQ("unknown option '--pages' for list", message({"list", "INBOX", "--pages", "2"}));
    EXPECT_EQ("--user needs a value", message({"folders", "--user"}));
    EXPECT_EQ("--json takes no value", message({"folders", "--json=yes"}));
    EXPECT_EQ("usage: zemail show FOLDER UID (try zemail show --help)", message({"show", "INBOX"}));
    EXPECT_EQ("usage: zemail quota (try zemail quota --help)", message({"quota", "extra"}));
    const Invocation paged = parse_command_line({"list", "INBOX", "--page", "0"});
    EXPECT_THROW(paged.number("page", 1, 1, 1000), UsageError);
    const Invocation junk = parse_command_line({"list", "INBOX", "--page", "2x"});
    EXPECT_THROW(junk.number("page", 1, 1, 1000), UsageError);
    // Help needs no arguments and names the command's options.
    EXPECT_TRUE(parse_command_line({"show", "--help"}).help);
    EXPECT_NE(std::string::npos, zemail::tool::help_text("list").find("--per-page VALUE"));
}

TEST(ZemailJson, StringsAreEscapedAndAlwaysValidUtf8) {
    Json doc = Json::object();
    doc.set("subject", "Re: \"caf\xc3\xa9\"\n\ttab\x01\x7f");
    doc.set("bad", std::string("a\xff\xc3(b\xed\xa0\x80"));  // stray byte, cut pair, surrogate
    doc.set("n", 4294967296LL).set("ok", true).set("none", Json());
    doc.set("list", Json::array().push(1).push("x"));
    doc.set("n", 5);  // replaces, keeps the place
    EXPECT_EQ(
        "{\"subject\":\"Re: \\\"caf\xc3\xa9\\\"\\n\\ttab\\u0001\\u007f\","
        "\"bad\":\"a\\ufffd\\ufffd(b\\ufffd\\ufffd\\ufffd\",\"n\":5,\"ok\":true,\"none\":null,"
        "\"list\":[1,\"x\"]}",
        doc.dump());
}

TEST(ZemailTable, ColumnsAlignByCharactersAndHostileTextIsDefused) {
    Table table({"UID", "Subject"}, {true, false});
    table.add({"7", "caf\xc3\xa9"});
    table.add({"1234", "evil\x1b[2J\nline"});
    std::ostringstream out;
    table.print(out);
    EXPECT_EQ(" UID  Subject\n   7  caf\xc3\xa9\n1234  evil?[2J?line\n", out.str());
    std::ostringstream narrow;
    table.print(narrow, 6);
    EXPECT_EQ(" UID  Sub...\n   7  caf\xc3\xa9\n1234  evi...\n", narrow.str());
}

}  // namespace
