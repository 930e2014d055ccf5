// Maildir file names from arbitrary bytes: every reader of a name runs on it,
// and rebuilding a name with any set of flag letters must give a name whose
// info part holds exactly those letters and whose stable parts are unchanged.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "stores/ZeMaildirName.h"

namespace {

void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "check failed: %s\n", what);
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace ZeMaildirName;
    if (size > 4096) {
        return 0;
    }
    // Names hold no NUL on disk; the first NUL ends the name and what follows
    // is the set of letters for the rebuilt name.
    std::string input(reinterpret_cast<const char*>(data), size);
    std::string::size_type nul = input.find('\0');
    std::string name = input.substr(0, nul);
    FlagChars wanted;
    if (nul != std::string::npos) {
        for (std::size_t i = nul + 1; i < input.size(); ++i) {
            wanted.set(static_cast<unsigned char>(input[i]) & 0x7f);
        }
    }

    std::string base = ZeMaildirName::basename(name);
    check(base.find(',') == std::string::npos && name.compare(0, base.size(), base) == 0,
          "base name is a prefix without a comma");
    check(base.size() == name.size() || name[base.size()] == ',' ||
              name.compare(base.size(), 3, kInfo2) == 0 ||
              name.compare(base.size(), 3, kInfo3) == 0,
          "base name ends at the first comma or at the info marker before it");
    check(base.size() == baseLength(name.data(), name.size()), "base length");
    std::uint32_t bytes = 0;
    bool sized = sizeFromName(name, &bytes);
    check(sized == (name.find(kSizeMarker) != std::string::npos), "size marker");
    check(!serverSizeFromName(name, &bytes) || name.find(kServerSize) != std::string::npos,
          "server's size field");
    check(date(name) >= 0, "date");
    std::string::size_type prefix = stablePrefix(name);
    check(prefix == std::string::npos || prefix < name.size(), "stable prefix inside the name");

    FlagChars present = flagChars(name);
    std::string::size_type info = infoStart(name);
    check(info != std::string::npos || present.none(), "letters only after a marker");

    for (const FlagChars& letters : {present, wanted}) {
        std::string renamed = newName(name, letters);
        check(flagChars(renamed) == letters, "rebuilt name carries exactly the letters");
        check(newName(renamed, letters) == renamed, "rebuilding is stable");
        if (info != std::string::npos) {
            // Also what lets fetch() find a renamed file by its stable prefix.
            check(renamed.compare(0, info, name, 0, info) == 0, "text before the letters kept");
        } else {
            check(renamed.compare(0, name.size(), name) == 0, "name kept before \":2,\"");
        }
    }
    return 0;
}
