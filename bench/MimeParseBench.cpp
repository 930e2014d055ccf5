// MIME parsing of whole messages: Rfc822MsgParser against GMime's parser
// (g_mime_parser_construct_message) on the same bytes in memory. Both build
// a tree of parts with their headers; GMime keeps each part's content as a
// range of the source stream, we keep offsets, so neither copies bodies.
//
// Data sets:
//   corpus  every message of the test corpus (ZEMAIL_CORPUS_DIR), one pass
//           over all of them per iteration;
//   large   one generated message of 4 MiB: a text part, an HTML part and a
//           base64 attachment, the shape that dominates real mail volume.
//
// Our extras (BODYSTRUCTURE text, the IMAP-side tree) are measured on their
// own, after the parse they need.

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <gmime/gmime.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/mime/MimeTree.h"
#include "support/mime/Rfc822MsgParser.h"

namespace {

std::vector<std::string> loadCorpus() {
    std::vector<std::string> out;
    const std::string dir = ZEMAIL_CORPUS_DIR;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        return out;
    }
    while (dirent* entry = readdir(d)) {
        const std::string name = entry->d_name;
        if (name[0] == '.' || name == "SOURCES.md" || name == "manifest.json") {
            continue;
        }
        std::ifstream in(dir + "/" + name, std::ios::binary);
        std::stringstream bytes;
        bytes << in.rdbuf();
        out.push_back(bytes.str());
    }
    closedir(d);
    return out;
}

std::string largeMessage() {
    std::string text =
        "From: a@example.com\r\nTo: b@example.org\r\nSubject: large\r\nMIME-Version: 1.0\r\n"
        "Content-Type: multipart/mixed; boundary=\"=_outer\"\r\n\r\n--=_outer\r\n"
        "Content-Type: multipart/alternative; boundary=\"=_alt\"\r\n\r\n--=_alt\r\n"
        "Content-Type: text/plain; charset=utf-8\r\n\r\n";
    for (int i = 0; i < 400; ++i) {
        text += "A line of the message text, long enough to look like prose in a mail.\r\n";
    }
    text += "--=_alt\r\nContent-Type: text/html; charset=utf-8\r\n\r\n";
    for (int i = 0; i < 400; ++i) {
        text += "<p>A line of the message text, long enough to look like prose.</p>\r\n";
    }
    text +=
        "--=_alt--\r\n--=_outer\r\nContent-Type: application/pdf; name=\"report.pdf\"\r\n"
        "Content-Disposition: attachment; filename=\"report.pdf\"\r\n"
        "Content-Transfer-Encoding: base64\r\n\r\n";
    const std::string line =
        "JVBERi0xLjQKJcfsj6IKNSAwIG9iago8PC9MZW5ndGggNiAwIFIvRmlsdGVyIC9GbGF0ZURlY29kZT4+\r\n";
    while (text.size() < (4u << 20)) {
        text += line;
    }
    return text + "--=_outer--\r\n";
}

const std::vector<std::string>& corpus() {
    static const std::vector<std::string> messages = loadCorpus();
    return messages;
}

const std::vector<std::string>& large() {
    static const std::vector<std::string> messages{largeMessage()};
    return messages;
}

std::size_t totalBytes(const std::vector<std::string>& messages) {
    std::size_t total = 0;
    for (const std::string& m : messages) {
        total += m.size();
    }
    return total;
}

void ours(benchmark::State& state, const std::vector<std::string>& messages) {
    const Corvane::Rfc822MsgParser parser;
    std::size_t parts = 0;
    for (auto _ : state) {
        for (const std::string& m : messages) {
            auto root = parser.parse(m);
            parts += root->count();
            benchmark::DoNotOptimize(root);
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * totalBytes(messages)));
    state.counters["parts"] = static_cast<double>(parts) / static_cast<double>(state.iterations());
}

void countPart(GMimeObject*, GMimeObject*, gpointer count) {
    ++*static_cast<std::size_t*>(count);
}

void gmime(benchmark::State& state, const std::vector<std::string>& messages) {
    g_mime_init();
    std::size_t parts = 0;
    for (auto _ : state) {
        for (const std::string& m : messages) {
            GMimeStream* stream = g_mime_stream_mem_new_with_buffer(
                reinterpret_cast<const char*>(m.data()), m.size());
            GMimeParser* parser = g_mime_parser_new_with_stream(stream);
            GMimeMessage* message = g_mime_parser_construct_message(parser, nullptr);
            if (message != nullptr) {
                std::size_t count = 1;
                g_mime_message_foreach(message, countPart, &count);
                parts += count;
                g_object_unref(message);
            }
            g_object_unref(parser);
            g_object_unref(stream);
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * totalBytes(messages)));
    state.counters["parts"] = static_cast<double>(parts) / static_cast<double>(state.iterations());
}

void BM_Ours_Corpus(benchmark::State& state) {
    ours(state, corpus());
}
void BM_GMime_Corpus(benchmark::State& state) {
    gmime(state, corpus());
}
void BM_Ours_Large(benchmark::State& state) {
    ours(state, large());
}
void BM_GMime_Large(benchmark::State& state) {
    gmime(state, large());
}

// What a file-backed mailbox does after parsing: the server's BODYSTRUCTURE
// text and the IMAP-side tree, for every corpus message.
void BM_Ours_Corpus_BodyStructure(benchmark::State& state) {
    const Corvane::Rfc822MsgParser parser;
    std::vector<std::unique_ptr<Corvane::MimePart>> roots;
    for (const std::string& m : corpus()) {
        roots.push_back(parser.parse(m));
    }
    for (auto _ : state) {
        for (const auto& root : roots) {
            benchmark::DoNotOptimize(Corvane::bodyStructure(*root));
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * totalBytes(corpus())));
}

void BM_Ours_Corpus_ImapTree(benchmark::State& state) {
    const Corvane::Rfc822MsgParser parser;
    std::vector<std::unique_ptr<Corvane::MimePart>> roots;
    for (const std::string& m : corpus()) {
        roots.push_back(parser.parse(m));
    }
    for (auto _ : state) {
        for (const auto& root : roots) {
            benchmark::DoNotOptimize(toImapMime(*root));
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * totalBytes(corpus())));
}

BENCHMARK(BM_Ours_Corpus)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GMime_Corpus)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Ours_Large)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GMime_Large)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Ours_Corpus_BodyStructure)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Ours_Corpus_ImapTree)->Unit(benchmark::kMillisecond);

}  // namespace
