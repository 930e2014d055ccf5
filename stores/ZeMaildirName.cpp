#include "stores/ZeMaildirName.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "model/ZeMessageFlags.h"

namespace ZeMaildirName {

unsigned long flagBits(const FlagChars& letters) {
    // The letter table as an array, made once: a walk asks for every file.
    static const std::array<unsigned long, 128> kBits = [] {
        std::array<unsigned long, 128> bits{};
        ZeMessageFlags::init();
        for (const auto& entry : ZeMessageFlags::m_maildirFlagsRev) {
            if (entry.first < bits.size()) {
                bits[entry.first] = entry.second;
            }
        }
        return bits;
    }();
    unsigned long result = 0;
    for (std::size_t c = letters._Find_first(); c < letters.size(); c = letters._Find_next(c)) {
        result |= kBits[c];
    }
    return result;
}

std::string basename(const std::string& name) {
    return name.substr(0, baseLength(name.data(), name.size()));
}

std::size_t baseLength(const char* name, std::size_t length) {
    const void* comma = std::memchr(name, ',', length);
    return comma == nullptr
               ? length
               : baseLengthAtComma(
                     name, static_cast<std::size_t>(static_cast<const char*>(comma) - name));
}

std::string::size_type infoStart(const std::string& name) {
    std::string::size_type at = name.find(kInfo2);
    if (at == std::string::npos) {
        at = name.find(kInfo3);
    }
    return at == std::string::npos ? at : at + 3;
}

FlagChars flagChars(const std::string& name) {
    FlagChars flags;
    std::string::size_type start = infoStart(name);
    if (start == std::string::npos) {
        return flags;
    }
    for (std::string::size_type i = start; i < name.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(name[i]);
        if (c < flags.size()) {
            flags.set(c);
        }
    }
    return flags;
}

bool sizeFromName(const std::string& name, std::uint32_t* size) {
    std::string::size_type at = name.find(kSizeMarker);
    if (at == std::string::npos) {
        return false;
    }
    unsigned long value = std::strtoul(name.c_str() + at + sizeof kSizeMarker - 1, nullptr, 10);
    const unsigned long max = std::numeric_limits<std::uint32_t>::max();
    *size = static_cast<std::uint32_t>(value > max ? max : value);
    return true;
}

bool serverSizeFromName(const std::string& name, std::uint32_t* size) {
    const std::string::size_type info = infoStart(name);
    // The "," of ":2," is no field of the name: the search ends before it.
    const std::string::size_type end = info == std::string::npos ? name.size() : info - 1;
    const std::string::size_type at = name.find(kServerSize);
    if (at == std::string::npos || at >= end) {
        return false;
    }
    const char* digits = name.data() + at + sizeof kServerSize - 1;
    const char* stop = name.data() + name.size();
    std::uint64_t value = 0;
    const std::from_chars_result read = std::from_chars(digits, stop, value);
    if (read.ptr == digits || (read.ptr != stop && *read.ptr != ',' && *read.ptr != ':')) {
        return false;
    }
    const std::uint64_t max = std::numeric_limits<std::uint32_t>::max();
    *size = static_cast<std::uint32_t>(read.ec == std::errc() && value < max ? value : max);
    return true;
}

time_t date(const std::string& name) {
    if (name.empty() || name[0] < '0' || name[0] > '9') {
        return 0;
    }
    errno = 0;
    unsigned long value = std::strtoul(name.c_str(), nullptr, 10);
    const unsigned long max = static_cast<unsigned long>(std::numeric_limits<time_t>::max());
    if (errno == ERANGE || value > max) {
        return std::numeric_limits<time_t>::max();
    }
    return static_cast<time_t>(value);
}

std::string newName(const std::string& name, const FlagChars& flags) {
    std::string::size_type start = infoStart(name);
    std::string result = start == std::string::npos ? name + kInfo2 : name.substr(0, start);
    for (std::size_t c = 0; c < flags.size(); ++c) {
        if (flags.test(c)) {
            result += static_cast<char>(c);
        }
    }
    return result;
}

std::string::size_type stablePrefix(const std::string& name) {
    for (const char* marker : {kUidMarker, kInfo2, kInfo3, kSizeMarker}) {
        std::string::size_type at = name.find(marker);
        if (at != std::string::npos) {
            return at;
        }
    }
    return std::string::npos;
}

}  // namespace ZeMaildirName
