#include "model/ZeMessageFlags.h"

#include <strings.h>

#include <mutex>

#include "TokenIterator.h"

// Flag values may be made by static objects of other units while the
// program starts: the tables are constructed before any ordinary static
// object (and destroyed after them), so init() never fills a map that is
// not constructed yet.
#define ZEMAIL_EARLY __attribute__((init_priority(101)))
std::map<unsigned long, std::string> ZeMessageFlags::m_imapActionFlags ZEMAIL_EARLY;
std::map<unsigned long, std::string> ZeMessageFlags::m_imapFilterSet ZEMAIL_EARLY;
std::map<unsigned long, std::string> ZeMessageFlags::m_imapFilterUnSet ZEMAIL_EARLY;
std::map<unsigned long, unsigned char> ZeMessageFlags::m_maildirFlags ZEMAIL_EARLY;
std::map<unsigned char, unsigned long> ZeMessageFlags::m_maildirFlagsRev ZEMAIL_EARLY;
std::map<unsigned char, unsigned long> ZeMessageFlags::m_mboxFlagsRev ZEMAIL_EARLY;
#undef ZEMAIL_EARLY

namespace {

struct SystemFlag {
    unsigned long bit;
    const char* name;
    const char* set_key;
    const char* unset_key;
};

constexpr SystemFlag kSystemFlags[] = {
    {ZeMessageFlags::RECENT, "\\Recent", "RECENT", "OLD"},
    {ZeMessageFlags::ANSWERED, "\\Answered", "ANSWERED", "UNANSWERED"},
    {ZeMessageFlags::DRAFT, "\\Draft", "DRAFT", "UNDRAFT"},
    {ZeMessageFlags::FLAGGED, "\\Flagged", "FLAGGED", "UNFLAGGED"},
    {ZeMessageFlags::SEEN, "\\Seen", "SEEN", "UNSEEN"},
    {ZeMessageFlags::DELETED, "\\Deleted", "DELETED", "UNDELETED"},
};

struct Keyword {
    unsigned long bit;
    const char* name;
};

constexpr Keyword kKeywords[] = {
    {ZeMessageFlags::FORWARDED, "$Forwarded"}, {ZeMessageFlags::RELEASED, "$Released"},
    {ZeMessageFlags::LABEL1, "$label1"},       {ZeMessageFlags::LABEL1 << 1, "$label2"},
    {ZeMessageFlags::LABEL1 << 2, "$label3"},  {ZeMessageFlags::LABEL1 << 3, "$label4"},
    {ZeMessageFlags::LABEL1 << 4, "$label5"},  {ZeMessageFlags::CALSEEN, "$CalSeen"},
    {ZeMessageFlags::IBESEEN, "$IBESeen"},
};
constexpr int kExtensionKeywords = 16;  // $ZeExt1 .. $ZeExt16

struct Letter {
    unsigned long bit;
    unsigned char letter;
};

// Info letters of Maildir file names ("...:2,FS").
constexpr Letter kMaildirLetters[] = {
    {ZeMessageFlags::ANSWERED, 'A'},    {ZeMessageFlags::DRAFT, 'D'},
    {ZeMessageFlags::FLAGGED, 'F'},     {ZeMessageFlags::SEEN, 'S'},
    {ZeMessageFlags::DELETED, 'T'},     {ZeMessageFlags::FORWARDED, 'W'},
    {ZeMessageFlags::RELEASED, 'L'},    {ZeMessageFlags::LABEL1, '1'},
    {ZeMessageFlags::LABEL1 << 1, '2'}, {ZeMessageFlags::LABEL1 << 2, '3'},
    {ZeMessageFlags::LABEL1 << 3, '4'}, {ZeMessageFlags::LABEL1 << 4, '5'},
    {ZeMessageFlags::MAILDIR_X, 'X'},   {ZeMessageFlags::CALSEEN, 'C'},
    {ZeMessageFlags::IBESEEN, 'I'},
};

// Status letters of mbox files; both cases are accepted. O and D carry the
// 0x20 and 0x40 bits, as the appliance's mbox writer used them.
constexpr Letter kMboxLetters[] = {
    {ZeMessageFlags::ANSWERED, 'A'}, {ZeMessageFlags::FLAGGED, 'F'},   {ZeMessageFlags::SEEN, 'R'},
    {ZeMessageFlags::DELETED, 'O'},  {ZeMessageFlags::FORWARDED, 'D'},
};

std::once_flag g_tables_built;

void build_tables() {
    if (!ZeMessageFlags::m_imapActionFlags.empty()) {
        return;
    }
    for (const SystemFlag& f : kSystemFlags) {
        ZeMessageFlags::m_imapFilterSet[f.bit] = f.set_key;
        ZeMessageFlags::m_imapFilterUnSet[f.bit] = f.unset_key;
    }
    for (const Letter& l : kMaildirLetters) {
        ZeMessageFlags::m_maildirFlags[l.bit] = l.letter;
        ZeMessageFlags::m_maildirFlagsRev[l.letter] = l.bit;
    }
    for (const Letter& l : kMboxLetters) {
        ZeMessageFlags::m_mboxFlagsRev[l.letter] = l.bit;
        ZeMessageFlags::m_mboxFlagsRev[static_cast<unsigned char>(l.letter | 0x20)] = l.bit;
    }
    // The action table is filled last: init() looks at it to know whether
    // the tables are complete.
    std::map<unsigned long, std::string> names;
    for (const SystemFlag& f : kSystemFlags) {
        names[f.bit] = f.name;
    }
    for (const Keyword& k : kKeywords) {
        names[k.bit] = k.name;
    }
    for (int n = 1; n <= kExtensionKeywords; ++n) {
        names[ZeMessageFlags::EXT1 << (n - 1)] = "$ZeExt" + std::to_string(n);
    }
    ZeMessageFlags::m_imapActionFlags.swap(names);
}

template <typename Key, typename Value>
Value lookup(const std::map<Key, Value>& table, Key key) {
    const auto it = table.find(key);
    return it == table.end() ? Value() : it->second;
}

}  // namespace

void ZeMessageFlags::init() {
    std::call_once(g_tables_built, build_tables);
}

void ZeMessageFlags::set(unsigned long bits, bool on) {
    if (on) {
        flags |= bits;
    } else {
        flags &= ~bits;
    }
}

void ZeMessageFlags::merge(const ZeMessageFlags& other) {
    switch (other.action) {
        case REPLACE:
            flags = other.flags;
            break;
        case ADD:
            flags |= other.flags;
            break;
        case REMOVE:
            flags &= ~other.flags;
            break;
        default:
            break;
    }
}

void ZeMessageFlags::set_one(const char* name) {
    if (name == nullptr) {
        return;
    }
    for (const auto& entry : m_imapActionFlags) {
        if (strcasecmp(name, entry.second.c_str()) == 0) {
            flags |= entry.first;
        }
    }
}

void ZeMessageFlags::set(const std::string& list) {
    flags = 0;
    TokenIterator it(list);
    for (const char* token = it++; token != nullptr; token = it++) {
        set_one(token);
    }
}

unsigned char ZeMessageFlags::getMaildirFlag(unsigned long bit) {
    init();
    return lookup(m_maildirFlags, bit);
}

unsigned long ZeMessageFlags::getMaildirFlagRev(unsigned char letter) {
    init();
    return lookup(m_maildirFlagsRev, letter);
}

unsigned long ZeMessageFlags::getMboxFlagRev(unsigned char letter) {
    init();
    return lookup(m_mboxFlagsRev, letter);
}

std::string ZeMessageFlags::asString(const std::map<unsigned long, std::string>& table,
                                     unsigned long mask, const std::string& prefix) const {
    std::string out;
    for (const auto& entry : table) {
        if (test(entry.first, mask)) {
            out += prefix;
            if (!out.empty()) {
                out += ' ';
            }
            out += entry.second;
        }
    }
    return out;
}

std::string ZeMessageFlags::asImapActionString() const {
    return asString(m_imapActionFlags, ~0UL, "");
}

std::string ZeMessageFlags::asImapFilterString() const {
    std::string out;
    if (test(SYSTEM_MASK, SYSTEM_MASK)) {
        if (action == ALL_UNSET) {
            out += asString(m_imapFilterUnSet, SYSTEM_MASK, "");
        } else if (action == ALL_SET) {
            out += asString(m_imapFilterSet, SYSTEM_MASK, "");
        }
    }
    // Only keywords with a name count: the Maildir-only bit 0x2000 and the
    // unnamed high bits never reach the server, so they alone must not turn
    // into an empty "NOT (  )" group.
    if (test(~SYSTEM_MASK, ~SYSTEM_MASK)) {
        if (action == ALL_UNSET) {
            out += asString(m_imapActionFlags, ~SYSTEM_MASK, " UNKEYWORD");
        } else if (action == ALL_SET) {
            out += asString(m_imapActionFlags, ~SYSTEM_MASK, " KEYWORD");
        } else if (action == ANY_KEYWORD) {
            const std::string keywords = asString(m_imapActionFlags, ~SYSTEM_MASK, " UNKEYWORD");
            if (!keywords.empty()) {
                out += "NOT ( " + keywords + " )";
            }
        }
    }
    return out;
}
