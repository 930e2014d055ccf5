// Feeds arbitrary bytes to the size-file parser (".maildirsize",
// ".vt_folder_size"), which reads files that other programs write.
//
// Checked for every input: a result is either OK with totals that are not
// negative, or BROKEN with the outputs untouched; an unfinished last line
// never changes the answer; and the totals equal a plain re-count of the
// complete lines for inputs the parser accepts.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "support/StoreUtil.h"

namespace {

// Sum of the "<bytes> <count>" lines after the first, for accepted input.
void recount(const std::string& text, long long* bytes, long long* count) {
    *bytes = 0;
    *count = 0;
    std::size_t start = text.find('\n') + 1;
    std::size_t end = 0;
    while ((end = text.find('\n', start)) != std::string::npos) {
        const std::string line = text.substr(start, end - start);
        long long b = 0;
        long long c = 0;
        std::sscanf(line.c_str(), "%lld %lld", &b, &c);
        *bytes += b;
        *count += c;
        start = end + 1;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    long long bytes = -7;
    long long count = -7;
    const int result = vtl_parse_mail_folder_size(text.data(), text.size(), &bytes, &count);
    FUZZ_CHECK(result == VTL_SIZE_OK || result == VTL_SIZE_BROKEN);
    if (result != VTL_SIZE_OK) {
        FUZZ_CHECK(bytes == -7 && count == -7);
        return 0;
    }
    FUZZ_CHECK(bytes >= 0 && count >= 0);

    long long b = 0;
    long long c = 0;
    recount(text.substr(0, text.rfind('\n') + 1), &b, &c);
    FUZZ_CHECK(b == bytes && c == count);

    const std::string unfinished = text.substr(0, text.rfind('\n') + 1) + "12";
    long long b2 = -7;
    long long c2 = -7;
    if (unfinished.size() < 5120) {
        FUZZ_CHECK(vtl_parse_mail_folder_size(unfinished.data(), unfinished.size(), &b2, &c2) ==
                   VTL_SIZE_OK);
        FUZZ_CHECK(b2 == bytes && c2 == count);
    }
    return 0;
}
