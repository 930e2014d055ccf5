// Feeds arbitrary flag lists (as a server sends them in FLAGS) and masks to
// ZeMessageFlags.
//
// Input: 8 bytes of mask, 1 byte of action, the rest is the list. Checked:
// the parsed mask holds only named bits; the STORE text of any mask parses
// back to its named bits; the search text of a search action names only
// known keys; the Maildir letters of the mask map back to their bits.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "model/ZeMessageFlags.h"

namespace {

unsigned long named_bits() {
    unsigned long mask = 0;
    for (const auto& entry : ZeMessageFlags::m_imapActionFlags) {
        mask |= entry.first;
    }
    return mask;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 9) {
        return 0;
    }
    unsigned long mask = 0;
    std::memcpy(&mask, data, sizeof mask);
    const std::int32_t action = data[8] % 9;
    const std::string list(reinterpret_cast<const char*>(data) + 9, size - 9);

    ZeMessageFlags parsed(0, action);
    parsed.set(list);
    const unsigned long named = named_bits();
    FUZZ_CHECK((parsed.flags & ~named) == 0);
    FUZZ_CHECK(parsed.action == action);

    const ZeMessageFlags value(mask, action);
    ZeMessageFlags back;
    back.set(value.asImapActionString());
    FUZZ_CHECK(back.flags == (mask & named));

    const std::string criteria = value.asImapFilterString();
    if (action < 4 || action > 6) {
        FUZZ_CHECK(criteria.empty());
    }
    FUZZ_CHECK(criteria.find('\\') == std::string::npos);

    for (int bit = 0; bit < 64; ++bit) {
        const unsigned long one = 1UL << bit;
        const unsigned char letter = ZeMessageFlags::getMaildirFlag(one);
        if ((mask & one) != 0 && letter != 0) {
            FUZZ_CHECK(ZeMessageFlags::getMaildirFlagRev(letter) == one);
        }
    }
    for (unsigned char c : list) {
        const unsigned long bit = ZeMessageFlags::getMboxFlagRev(c);
        FUZZ_CHECK(bit == 0 || bit == 0x2 || bit == 0x8 || bit == 0x10 || bit == 0x20 ||
                   bit == 0x40);
    }
    return 0;
}
