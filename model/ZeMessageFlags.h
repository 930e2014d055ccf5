#ifndef ZEMAIL_MODEL_ZE_MESSAGE_FLAGS_H
#define ZEMAIL_MODEL_ZE_MESSAGE_FLAGS_H

#include <cstdint>
#include <map>
#include <string>

// The flags and keywords of one message, shared by every store, plus the code
// that says how the mask is applied to a target (update) or matched (search).
//
//   bit        IMAP name      Maildir  search set / unset
//   0x1        \Recent        -        RECENT / OLD
//   0x2        \Answered      A        ANSWERED / UNANSWERED
//   0x4        \Draft         D        DRAFT / UNDRAFT
//   0x8        \Flagged       F        FLAGGED / UNFLAGGED
//   0x10       \Seen          S        SEEN / UNSEEN
//   0x20       \Deleted       T        DELETED / UNDELETED
//   0x40       $Forwarded     W        keyword
//   0x80       $Released      L        keyword
//   0x100..    $label1..5     1..5     keyword
//   0x2000     (none)         X        never sent, never searched
//   0x4000     $CalSeen       C        keyword
//   0x8000     $IBESeen       I        keyword
//   0x10000 << (n-1)  $ZeExtn (n = 1..16)  keyword, no Maildir letter
//
// The six low bits (mask 63) are IMAP system flags, everything above is a
// keyword. Mbox "Status:"/"X-Status:" letters map back to bits, either case:
// A 0x2, F 0x8, R 0x10, O 0x20, D 0x40 (O and D pair with these bits on
// purpose: that is how the mbox files of the appliance were written).
//
// The tables are process-wide and built once, on the first construction of a
// flag value (or an explicit init()), also when that happens in a static
// initialiser; building is guarded, and afterwards the tables are only read
// (lookups never insert), so flag values may be used from any thread.
class ZeMessageFlags {
public:
    // Flag bits.
    static constexpr unsigned long RECENT = 0x1;
    static constexpr unsigned long ANSWERED = 0x2;
    static constexpr unsigned long DRAFT = 0x4;
    static constexpr unsigned long FLAGGED = 0x8;
    static constexpr unsigned long SEEN = 0x10;
    static constexpr unsigned long DELETED = 0x20;
    static constexpr unsigned long FORWARDED = 0x40;
    static constexpr unsigned long RELEASED = 0x80;
    static constexpr unsigned long LABEL1 = 0x100;  // LABEL1 << (n-1) is $labeln, n = 1..5
    static constexpr unsigned long MAILDIR_X = 0x2000;
    static constexpr unsigned long CALSEEN = 0x4000;
    static constexpr unsigned long IBESEEN = 0x8000;
    static constexpr unsigned long EXT1 = 0x10000;  // EXT1 << (n-1) is $ZeExtn, n = 1..16
    static constexpr unsigned long SYSTEM_MASK = 63;

    // Operation codes held in `action`.
    static constexpr std::int32_t REPLACE = 1;      // update: target = flags
    static constexpr std::int32_t ADD = 2;          // update: target |= flags
    static constexpr std::int32_t REMOVE = 3;       // update: target &= ~flags
    static constexpr std::int32_t ALL_SET = 4;      // search: every given flag is set
    static constexpr std::int32_t ALL_UNSET = 5;    // search: every given flag is unset
    static constexpr std::int32_t ANY_KEYWORD = 6;  // search: one of the given keywords is set

    explicit ZeMessageFlags(unsigned long bits = 0, std::int32_t op = REPLACE)
        : flags(bits), action(op) {
        init();
    }

    // Builds the tables unless m_imapActionFlags already holds them.
    static void init();

    // Sets (on) or clears (!on) the given bits.
    void set(unsigned long bits, bool on);
    // True when bits & flags & mask is not zero.
    bool test(unsigned long bits, unsigned long mask = ~0UL) const {
        return (bits & flags & mask) != 0;
    }
    // Applies other to this value by other.action: 1 replaces, 2 adds,
    // 3 removes; search codes and unknown codes change nothing.
    void merge(const ZeMessageFlags& other);
    // Sets every bit whose IMAP name equals name, ignoring case. Null or
    // unknown names change nothing.
    void set_one(const char* name);
    // Clears the mask (not the action), then sets the bit of every IMAP name
    // in the blank-separated list: set("\\Seen \\ANSWERED foo") gives 0x12.
    void set(const std::string& list);

    // Maildir letter of one bit, 0 when it has none.
    static unsigned char getMaildirFlag(unsigned long bit);
    // Bit of one Maildir letter ('S' -> 0x10), 0 when it is no flag letter.
    static unsigned long getMaildirFlagRev(unsigned char letter);
    // Bit of one mbox status letter ('o' -> 0x20), 0 when it is none.
    static unsigned long getMboxFlagRev(unsigned char letter);

    // Walks table in ascending key order; for each key with test(key, mask)
    // appends prefix, then a blank when the text is no longer empty, then the
    // table's text. Empty prefix: "ANSWERED SEEN"; prefix " KEYWORD":
    // " KEYWORD $label1 KEYWORD $label2".
    std::string asString(const std::map<unsigned long, std::string>& table, unsigned long mask,
                         const std::string& prefix) const;
    // The IMAP names of the set bits, blank-separated, for STORE:
    // "\\Answered \\Seen $label1". Empty when no named bit is set.
    std::string asImapActionString() const;
    // The IMAP SEARCH criteria for a search code (4, 5, 6): system flags
    // first, then keywords. 4 with \Seen and $label1: "SEEN KEYWORD $label1";
    // 5 with \Recent: "OLD"; 6 with $label1 and $label2:
    // "NOT (  UNKEYWORD $label1 UNKEYWORD $label2 )". Empty for update codes
    // and when no bit with a search key is set.
    std::string asImapFilterString() const;

    bool operator==(const ZeMessageFlags& other) const {
        return flags == other.flags && action == other.action;
    }
    bool operator!=(const ZeMessageFlags& other) const { return !(*this == other); }

    unsigned long flags;  // the flag bits (64 bits on the supported platform)
    std::int32_t action;  // operation code, see above

    // Process-wide tables, filled by init() and read-only afterwards.
    static std::map<unsigned long, std::string> m_imapActionFlags;    // bit -> IMAP name (31)
    static std::map<unsigned long, std::string> m_imapFilterSet;      // low bit -> set key
    static std::map<unsigned long, std::string> m_imapFilterUnSet;    // low bit -> unset key
    static std::map<unsigned long, unsigned char> m_maildirFlags;     // bit -> Maildir letter
    static std::map<unsigned char, unsigned long> m_maildirFlagsRev;  // Maildir letter -> bit
    static std::map<unsigned char, unsigned long> m_mboxFlagsRev;     // mbox letter -> bit
};

#endif
