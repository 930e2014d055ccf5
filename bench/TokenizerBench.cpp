// TokenIterator over realistic FETCH response lines, walked the way the
// response parsers walk them.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "foundation/TokenIterator.h"
#include "support/Buffer.h"

namespace {

// A multipart/mixed message: a multipart/alternative body (text/plain and
// text/html), a PDF, a JPEG, an inline PNG, a calendar invitation and a
// spreadsheet with name and filename parameters, and a forwarded message with
// its envelope; extension data on every part.
const std::string kBodystructureLine =
    "* 4711 FETCH (UID 90817 RFC822.SIZE 2483311 FLAGS (\\Seen $Forwarded) BODYSTRUCTURE "
    "(((\"TEXT\" \"PLAIN\" (\"CHARSET\" \"utf-8\" \"FORMAT\" \"flowed\") NIL NIL "
    "\"QUOTED-PRINTABLE\" 2817 71 NIL NIL NIL NIL)"
    "(\"TEXT\" \"HTML\" (\"CHARSET\" \"utf-8\") NIL NIL \"QUOTED-PRINTABLE\" 18422 402 NIL "
    "NIL NIL NIL) \"ALTERNATIVE\" (\"BOUNDARY\" \"----=_Part_1182_2071455733.1700641219113\") "
    "NIL NIL NIL)"
    "(\"APPLICATION\" \"PDF\" (\"NAME\" \"Q3 report (final).pdf\") "
    "\"<part2.b1c0e2f4@mail.example.com>\" \"Quarterly report\" \"BASE64\" 1284734 NIL "
    "(\"ATTACHMENT\" (\"FILENAME\" \"Q3 report (final).pdf\" \"SIZE\" \"938762\" "
    "\"CREATION-DATE\" \"Mon, 20 Nov 2023 17:02:11 GMT\")) NIL NIL)"
    "(\"IMAGE\" \"JPEG\" (\"NAME\" \"IMG_2041.JPG\") NIL NIL \"BASE64\" 811002 NIL "
    "(\"ATTACHMENT\" (\"FILENAME\" \"IMG_2041.JPG\" \"SIZE\" \"592606\")) NIL NIL)"
    "(\"IMAGE\" \"PNG\" (\"NAME\" \"logo.png\") \"<logo.3f2a@mail.example.com>\" NIL "
    "\"BASE64\" 14806 NIL (\"INLINE\" (\"FILENAME\" \"logo.png\")) NIL NIL)"
    "(\"TEXT\" \"CALENDAR\" (\"CHARSET\" \"utf-8\" \"METHOD\" \"REQUEST\" \"NAME\" "
    "\"invite.ics\") NIL NIL \"BASE64\" 2954 38 NIL (\"ATTACHMENT\" (\"FILENAME\" "
    "\"invite.ics\")) NIL NIL)"
    "(\"APPLICATION\" \"VND.OPENXMLFORMATS-OFFICEDOCUMENT.SPREADSHEETML.SHEET\" (\"NAME\" "
    "\"=?UTF-8?Q?Budget_=C3=BCbersicht_2024.xlsx?=\") NIL NIL \"BASE64\" 48212 NIL "
    "(\"ATTACHMENT\" (\"FILENAME*\" \"utf-8''Budget%20%C3%BCbersicht%202024.xlsx\")) NIL NIL)"
    "(\"MESSAGE\" \"RFC822\" (\"NAME\" \"Re: Budget.eml\") NIL NIL \"7BIT\" 3021 "
    "(\"Tue, 21 Nov 2023 09:14:02 +0100\" \"Re: Budget [internal]\" "
    "((\"Jane Doe\" NIL \"jane.doe\" \"example.com\")) ((\"Jane Doe\" NIL \"jane.doe\" "
    "\"example.com\")) ((\"Jane Doe\" NIL \"jane.doe\" \"example.com\")) ((\"Sales team\" NIL "
    "\"sales\" \"example.org\")(NIL NIL \"bob\" \"example.net\")) NIL NIL "
    "\"<9c1f.4e2a@mail.example.com>\" \"<77aa01.5d@mx.example.org>\") "
    "(\"TEXT\" \"PLAIN\" (\"CHARSET\" \"us-ascii\") NIL NIL \"7BIT\" 1204 31 NIL NIL NIL NIL) "
    "62 NIL (\"ATTACHMENT\" (\"FILENAME\" \"Re: Budget.eml\")) NIL NIL) "
    "\"MIXED\" (\"BOUNDARY\" \"----=_Part_1181_1209637115.1700641219113\") NIL (\"EN-US\") "
    "NIL))\r\n";

const std::string kHeader =
    "From: \"Jane Doe\" <jane.doe@example.com>\r\n"
    "To: \"Sales team\" <sales@example.org>, bob@example.net\r\n"
    "Subject: Re: Q3 numbers (draft 2) [internal]\r\n"
    "Date: Tue, 21 Nov 2023 09:14:02 +0100\r\n"
    "\r\n";

const std::string kHeaderLine = "* 12 FETCH (UID 345 BODY[HEADER.FIELDS (FROM TO SUBJECT DATE)] {" +
                                std::to_string(kHeader.size()) + "}\r\n" + kHeader + ")\r\n";

// Every token of text: complete groups are tokenised again by a new iterator,
// numbers are recognised, strings are stripped of their quotes.
std::size_t walk(const char* text, int depth) {
    std::size_t seen = 0;
    TokenIterator it(text);
    while (it != TokenIterator::end()) {
        if (it.group() && it.kind() == TokenIterator::kGroup && depth < 16) {
            seen += walk(it.token(), depth + 1);
        } else if (it.is_number()) {
            seen += 1;
        } else {
            seen += std::strlen(it.strip().token());
        }
        it++;
    }
    return seen + 1;
}

void BM_BodystructureLine(benchmark::State& state) {
    const Corvane::Buffer line(kBodystructureLine);
    for (auto _ : state) {
        benchmark::DoNotOptimize(walk(line.c_str(), 0));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * line.length()));
    state.counters["line_bytes"] = static_cast<double>(line.length());
}
BENCHMARK(BM_BodystructureLine);

void BM_HeaderFieldsLiteral(benchmark::State& state) {
    const Corvane::Buffer line(kHeaderLine);
    Corvane::Buffer header;
    for (auto _ : state) {
        header.clear();
        TokenIterator it(line);
        it++;  // *
        it++;  // sequence number
        it++;  // FETCH
        TokenIterator fetch(it.token());
        while (fetch != TokenIterator::end()) {
            if (fetch.group() && fetch.kind() == TokenIterator::kGroup &&
                fetch.open_char() == '{') {
                fetch.literal(header);
            } else {
                fetch++;
            }
        }
        benchmark::DoNotOptimize(header.data());
    }
    if (header.str() != kHeader) {
        state.SkipWithError("the literal was not read back whole");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * line.length()));
    state.counters["line_bytes"] = static_cast<double>(line.length());
}
BENCHMARK(BM_HeaderFieldsLiteral);

}  // namespace
