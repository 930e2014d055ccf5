#include "stores/ZeUIDList.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <boost/make_shared.hpp>

#include "stores/ZeMaildirName.h"
#include "support/Debug.h"

// How a read goes. The file is read in chunks into one buffer reused for the
// whole read. The complete lines of a chunk are parsed where they lie: the
// UID eight digits at a time, and the ":", "," and line feed of a usual
// line through bit masks of 16 and 64 bytes, so a line costs no loop whose
// end the processor would have to guess; longer or odd lines take a plain
// byte-wise path with the same grammar. The base name of each record is
// copied into the list's name arena, one block holding every name back to
// back, and both maps are arrays of (UID, place of the name) sorted by their
// key. The server writes records in ascending UID order and its names begin
// with the delivery time, so while reading we only check that each record
// follows the one before in both orders; when both hold (the usual case)
// the records as read are both maps at once and nothing is sorted.
// Otherwise the records that break an order are set aside, sorted and
// merged back: linear when few are out of place, n log n at worst.
//
// A re-read keeps none of the records the maps already hold with the same
// name (most of them, found by walking byUid alongside the file), merges
// the rest into the maps in place, entries already there winning, and gives
// back the arena bytes of names that neither map took, so re-reading a file
// does not grow the list by more than what it adds.

namespace {

const char kUidListName[] = "/.dovecot-uidlist";

// Reads are made in chunks of this size; a smaller file gets a buffer of its
// own size, but never less than kMinChunk: room for a longest line and a
// byte more, so a full buffer always decides whether the line fits.
constexpr std::size_t kChunk = 256 * 1024;
constexpr std::size_t kMinChunk = 4096;
// Bytes that may be read past the data in the read buffer and past the last
// name in the arena while reading: lines are looked at through a 64-byte
// window, names copied and compared in blocks of up to 64 bytes.
constexpr std::size_t kSlack = 64;
// A line with its line feed must fit the line buffer; the file's last line
// may lack the feed and so be one byte longer.
constexpr std::size_t kMaxLine = ZeUIDListImpl::kLineBufferSize - 2;
constexpr std::size_t kMaxLastLine = ZeUIDListImpl::kLineBufferSize - 1;

// Where a name lies in the arena: offset << kLengthBits | length.
constexpr unsigned kLengthBits = 10;
static_assert(ZeUIDListImpl::kLineBufferSize <= (1u << kLengthBits),
              "a name as long as a line must fit the length bits");

std::size_t name_offset(std::uint64_t place) {
    return static_cast<std::size_t>(place >> kLengthBits);
}
std::size_t name_length(std::uint64_t place) {
    return static_cast<std::size_t>(place & ((1u << kLengthBits) - 1));
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

// The base name: a file name up to its first "," or its info marker.
std::size_t base_length(const std::string& name) {
    return ZeMaildirName::baseLength(name.data(), name.size());
}

// Byte order of names, the order of std::string's comparison.
int compare_names(const char* a, std::size_t aLength, const char* b, std::size_t bLength) {
    int order = std::memcmp(a, b, std::min(aLength, bLength));
    if (order != 0) {
        return order;
    }
    return aLength < bLength ? -1 : (aLength > bLength ? 1 : 0);
}

// One record line [line, end), feed excluded, as the header describes it.
inline bool parse_line(const char* line, const char* end, std::uint64_t* uidOut,
                       const char** nameOut, const char** nameEnd) {
    const char* p = line;
    if (p == end || !is_digit(*p)) {
        return false;
    }
    // Nineteen digits cannot overflow 64 bits; only a longer number (leading
    // zeros included) takes the checked loop.
    const char* unchecked = end - p > 19 ? p + 19 : end;
    std::uint64_t value = 0;
    while (p < unchecked && is_digit(*p)) {
        value = value * 10 + static_cast<unsigned>(*p - '0');
        ++p;
    }
    if (p == unchecked && p < end && is_digit(*p)) {
        const std::uint64_t max = std::numeric_limits<std::uint64_t>::max();
        do {
            unsigned digit = static_cast<unsigned>(*p - '0');
            if (value > (max - digit) / 10) {
                return false;  // no UID has more than 64 bits
            }
            value = value * 10 + digit;
            ++p;
        } while (p < end && is_digit(*p));
    }
    if (value == 0 || p == end || !is_blank(*p)) {
        return false;
    }
    // The server's extension fields (W<size>, G<guid>, ...) stand between the
    // blank and the ":" that starts the file name; usually there are none or
    // a few bytes of them.
    const char* colon = p + 1;
    while (colon < end && *colon != ':') {
        ++colon;
    }
    if (colon == end) {
        return false;
    }
    const char* name = colon + 1;
    *uidOut = value;
    *nameOut = name;
    *nameEnd = name + ZeMaildirName::baseLength(name, static_cast<std::size_t>(end - name));
    return true;
}

// Copies a name in blocks, a usual one in a single block of 64 bytes: up
// to 63 bytes past its end are read from the source and written to the
// destination, which both have room for.
inline void copy_name(char* to, const char* from, std::size_t length) {
    std::memcpy(to, from, 64);
    for (std::size_t done = 64; done < length; done += 16) {
        std::memcpy(to + done, from + done, 16);
    }
}

// The scanners below work on the read buffer, where every line they look at
// ends in a line feed and kSlack readable bytes follow the data: they read
// in blocks of up to 64 bytes, possibly past what they look for, and need no
// bound but that feed.

// The decimal number at p: its value, and where its digits end (p when
// there are none); null when it needs more than 64 bits.
inline const char* scan_uid(const char* p, std::uint64_t* value) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    // Eight bytes at once, the first byte the lowest. Subtracting '0' from
    // each byte leaves a digit's value; the lowest byte that is not a digit
    // ends up at 10 or more, or borrows and reads as 0x80 or more, so bit 7
    // of (d | d + 0x76) marks it (carries from it only reach later bytes).
    std::uint64_t chunk;
    std::memcpy(&chunk, p, 8);
    std::uint64_t digits = chunk - 0x3030303030303030ull;
    std::uint64_t stops = (digits | (digits + 0x7676767676767676ull)) & 0x8080808080808080ull;
    unsigned count = stops != 0 ? static_cast<unsigned>(__builtin_ctzll(stops)) / 8 : 8;
    if (count == 0) {
        *value = 0;
        return p;
    }
    // Right-align the digits (the bytes below become leading zeros), then
    // fold pairs, quadruples and the two halves.
    digits <<= 8 * (8 - count);
    digits = digits * 10 + (digits >> 8);
    digits = (((digits & 0x000000FF000000FFull) * (100 + (1000000ull << 32))) +
              (((digits >> 16) & 0x000000FF000000FFull) * (1 + (10000ull << 32)))) >>
             32;
    std::uint64_t number = digits;
    p += count;
    if (count < 8) {
        *value = number;
        return p;
    }
    unsigned taken = 8;
#else
    std::uint64_t number = 0;
    unsigned taken = 0;
#endif
    // Nineteen digits cannot overflow 64 bits; past them (leading zeros
    // included) every digit is checked.
    for (; taken < 19 && is_digit(*p); ++taken, ++p) {
        number = number * 10 + static_cast<unsigned>(*p - '0');
    }
    const std::uint64_t max = std::numeric_limits<std::uint64_t>::max();
    for (; is_digit(*p); ++p) {
        unsigned digit = static_cast<unsigned>(*p - '0');
        if (number > (max - digit) / 10) {
            return nullptr;
        }
        number = number * 10 + digit;
    }
    *value = number;
    return p;
}

#if defined(__SSE2__)
inline unsigned bytes_equal(const char* p, __m128i wanted) {
    __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(block, wanted)));
}
#endif

// The first line feed at or after p.
inline const char* find_feed(const char* p) {
#if defined(__SSE2__)
    const __m128i feed = _mm_set1_epi8('\n');
    for (;; p += 16) {
        if (unsigned found = bytes_equal(p, feed)) {
            return p + __builtin_ctz(found);
        }
    }
#else
    while (*p != '\n') {
        ++p;
    }
    return p;
#endif
}

// compare_names for names followed by at least 16 readable bytes. Names
// that differ within their first 16 bytes (names that begin with their
// delivery time mostly do) are told apart with one vector comparison.
inline int compare_padded(const char* a, std::size_t aLength, const char* b, std::size_t bLength) {
#if defined(__SSE2__)
    const std::size_t common = std::min(aLength, bLength);
    __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a));
    __m128i y = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b));
    unsigned differ = ~static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(x, y))) & 0xFFFFu;
    if (common < 16) {
        differ &= (1u << common) - 1;
    }
    if (differ != 0) {
        // x <= y bytewise, unsigned, where min(x, y) == x.
        unsigned atMost =
            static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_min_epu8(x, y), x)));
        return (atMost >> __builtin_ctz(differ)) & 1 ? -1 : 1;
    }
    if (common <= 16) {
        return aLength < bLength ? -1 : (aLength > bLength ? 1 : 0);
    }
    return compare_names(a + 16, aLength - 16, b + 16, bLength - 16);
#else
    return compare_names(a, aLength, b, bLength);
#endif
}

// Where the records of one read go while lines are scanned: the batch's
// array and the name arena, both with room for whatever the scanned lines
// can hold (the caller sees to that), and the checks of the two orders.
template <typename Entry>
struct RecordSink {
    Entry* records;
    std::size_t count;
    char* arena;
    std::size_t arenaSize;
    bool uidsAscend;
    bool namesAscend;
    std::uint64_t lastUid;
    std::size_t lastOffset;
    std::size_t lastLength;
    // On a re-read, byUid as it stood (its names are in the arena), and
    // where the last record was found in it.
    const Entry* known;
    std::size_t knownCount;
    std::size_t knownNext;

    // Whether byUid already maps the UID to that name. Such a record changes
    // neither map: byUid has the UID, and byName has the name since the
    // record that put it into byUid. A re-read mostly meets such records,
    // in the order of byUid, so the next entry is tried first.
    bool _known(std::uint64_t uidValue, const char* name, std::size_t length) {
        std::size_t at = knownNext;
        if (at >= knownCount || known[at].uid != uidValue) {
            at = static_cast<std::size_t>(
                std::lower_bound(known, known + knownCount, uidValue,
                                 [](const Entry& e, std::uint64_t u) { return e.uid < u; }) -
                known);
            if (at == knownCount || known[at].uid != uidValue) {
                knownNext = at;
                return false;
            }
        }
        knownNext = at + 1;
        const std::uint64_t place = known[at].name;
        return name_length(place) == length &&
               std::memcmp(arena + name_offset(place), name, length) == 0;
    }

    // A record whose name has kSlack readable bytes after it.
    void add(std::uint64_t uidValue, const char* name, std::size_t length) {
        if (length == 0) {
            return;  // no file has an empty name
        }
        if (known != nullptr && _known(uidValue, name, length)) {
            return;
        }
        if (count != 0) {
            uidsAscend = uidsAscend && lastUid < uidValue;
            // Before the copy: its stores overlap the block this reads.
            namesAscend =
                namesAscend && compare_padded(arena + lastOffset, lastLength, name, length) < 0;
        }
        copy_name(arena + arenaSize, name, length);
        records[count++] = Entry{uidValue, static_cast<std::uint64_t>(arenaSize) << kLengthBits |
                                               static_cast<std::uint64_t>(length)};
        lastUid = uidValue;
        lastOffset = arenaSize;
        lastLength = length;
        arenaSize += length;
    }
};

enum class ScanEnd { Done, TooLong, Malformed };

// Scans the record lines from *line up to stop, which follows a line feed,
// into *sink, and counts them in *lines. A line longer than maxLength or one
// that breaks the grammar ends the scan; *line is then that line.
template <typename Entry>
ScanEnd scan_records(const char** line, const char* stop, std::size_t maxLength,
                     RecordSink<Entry>* sink, unsigned long* lines) {
    // Copies in locals, which the stores into the arena cannot alias: the
    // compiler keeps them in registers.
    RecordSink<Entry> to = *sink;
    unsigned long count = *lines;
    const char* p = *line;
    ScanEnd end = ScanEnd::Done;
    while (p < stop) {
        ++count;
        std::uint64_t uidValue = 0;
        const char* digitsEnd = scan_uid(p, &uidValue);
#if defined(__SSE2__)
        // The usual line: its ":" within 16 bytes after the blank, its name
        // and the "," or feed after it within 64 bytes. Those are found
        // through bit masks, without loops whose ends the processor would
        // have to guess.
        if (digitsEnd != nullptr && digitsEnd != p && uidValue != 0 && is_blank(*digitsEnd)) {
            const char* fields = digitsEnd + 1;
            const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(fields));
            const unsigned feeds16 = static_cast<unsigned>(
                _mm_movemask_epi8(_mm_cmpeq_epi8(block, _mm_set1_epi8('\n'))));
            unsigned colons =
                static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(block, _mm_set1_epi8(':'))));
            if (feeds16 != 0) {
                colons &= (feeds16 & (0u - feeds16)) - 1;  // before the line's end
            }
            if (colons != 0) {
                const char* name = fields + __builtin_ctz(colons) + 1;
                std::uint64_t commas = 0;
                std::uint64_t feeds = 0;
                for (unsigned i = 0; i < 4; ++i) {
                    const __m128i part =
                        _mm_loadu_si128(reinterpret_cast<const __m128i*>(name + 16 * i));
                    commas |= static_cast<std::uint64_t>(static_cast<unsigned>(
                                  _mm_movemask_epi8(_mm_cmpeq_epi8(part, _mm_set1_epi8(',')))))
                              << (16 * i);
                    feeds |= static_cast<std::uint64_t>(static_cast<unsigned>(
                                 _mm_movemask_epi8(_mm_cmpeq_epi8(part, _mm_set1_epi8('\n')))))
                             << (16 * i);
                }
                const char* nameEnd = nullptr;
                const char* feed = nullptr;
                if (feeds != 0) {
                    const unsigned at = static_cast<unsigned>(__builtin_ctzll(feeds));
                    commas &= (std::uint64_t{1} << at) - 1;
                    nameEnd = commas != 0 ? name + ZeMaildirName::baseLengthAtComma(
                                                       name, __builtin_ctzll(commas))
                                          : name + at;
                    feed = name + at;
                } else if (commas != 0) {
                    const std::size_t comma = __builtin_ctzll(commas);
                    nameEnd = name + ZeMaildirName::baseLengthAtComma(name, comma);
                    feed = find_feed(name + comma + 1);
                }
                if (feed != nullptr) {
                    if (static_cast<std::size_t>(feed - p) > maxLength) {
                        end = ScanEnd::TooLong;
                        break;
                    }
                    to.add(uidValue, name, static_cast<std::size_t>(nameEnd - name));
                    p = feed + 1;
                    continue;
                }
            }
        }
#endif
        // Any other line: long fields, a long name, or a broken line. A line
        // too long for the buffer ends the read before its grammar counts.
        const char* feed = find_feed(p);
        if (static_cast<std::size_t>(feed - p) > maxLength) {
            end = ScanEnd::TooLong;
            break;
        }
        const char* name = nullptr;
        const char* nameEnd = nullptr;
        if (!parse_line(p, feed, &uidValue, &name, &nameEnd)) {
            end = ScanEnd::Malformed;
            break;
        }
        to.add(uidValue, name, static_cast<std::size_t>(nameEnd - name));
        p = feed + 1;
    }
    *sink = to;
    *lines = count;
    *line = p;
    return end;
}

struct UidOrder {
    template <typename Entry>
    int operator()(const Entry& a, const Entry& b) const {
        return a.uid < b.uid ? -1 : (a.uid > b.uid ? 1 : 0);
    }
};

struct NameOrder {
    const char* arena;
    template <typename Entry>
    int operator()(const Entry& a, const Entry& b) const {
        return compare_names(arena + name_offset(a.name), name_length(a.name),
                             arena + name_offset(b.name), name_length(b.name));
    }
};

// Two sorted maps, one entry per key, as one: first's entry where both have
// the key.
template <typename Array, typename Order>
Array merge_unique(const Array& first, const Array& second, Order order) {
    Array out;
    out.reserve(first.size() + second.size());
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < first.size() && j < second.size()) {
        int side = order(first[i], second[j]);
        if (side <= 0) {
            out.push_back(first[i++]);
            j += side == 0;
        } else {
            out.push_back(second[j++]);
        }
    }
    for (; i < first.size(); ++i) {
        out.push_back(first[i]);
    }
    for (; j < second.size(); ++j) {
        out.push_back(second[j]);
    }
    out.shrink_to_fit();
    return out;
}

// The entries of fresh (sorted, one per key) whose key map (sorted, one per
// key) does not have.
template <typename Array, typename Order>
Array missing_from(const Array& map, const Array& fresh, Order order) {
    Array out;
    using Entry = typename std::remove_reference<decltype(out[0])>::type;
    const Entry* low = map.begin();
    for (const Entry& entry : fresh) {
        // fresh ascends: each search starts where the last one ended.
        low = std::lower_bound(low, map.end(), entry, [&order](const Entry& a, const Entry& b) {
            return order(a, b) < 0;
        });
        if (low == map.end() || order(*low, entry) != 0) {
            out.push_back(entry);
        }
    }
    return out;
}

// Adds to map (sorted, one per key) the entries of added (sorted, keys map
// does not have), in place: map grows at its end, then is merged from the
// back, so entries above the largest added key never move and added keys
// above all of map's are a plain append.
template <typename Array, typename Order>
void insert_sorted(Array& map, const Array& added, Order order) {
    if (added.empty()) {
        return;
    }
    std::size_t i = map.size();
    std::size_t j = added.size();
    map.reserve(i + j);
    std::size_t to = i + j;
    map.set_size(to);
    while (j > 0) {
        if (i > 0 && order(map[i - 1], added[j - 1]) > 0) {
            map[--to] = map[--i];
        } else {
            map[--to] = added[--j];
        }
    }
    map.shrink_to_fit();
}

// Records in file order as a map sorted by order, one entry per key, the
// first record of a key winning. Records that continue the ascending run
// are taken as they come; the others are set aside, sorted (stably, so the
// first of equal keys stays first) and merged in. A run entry wins over a
// set-aside one with the same key, which is right: a record is set aside
// when its key is not above the run's last, and after that the run only
// takes keys above that one, so the run's entry came first.
template <typename Array, typename Order>
Array sorted_unique(const Array& records, Order order) {
    Array run;
    Array aside;
    run.reserve(records.size());
    for (const auto& record : records) {
        if (run.empty() || order(run.back(), record) < 0) {
            run.push_back(record);
        } else {
            aside.push_back(record);
        }
    }
    if (aside.empty()) {
        return run;
    }
    using Entry = typename std::remove_reference<decltype(aside[0])>::type;
    std::stable_sort(aside.data(), aside.data() + aside.size(),
                     [&order](const Entry& a, const Entry& b) { return order(a, b) < 0; });
    std::size_t kept = 1;
    for (std::size_t i = 1; i < aside.size(); ++i) {
        if (order(aside[kept - 1], aside[i]) != 0) {
            aside[kept++] = aside[i];
        }
    }
    aside.set_size(kept);
    return merge_unique(run, aside, order);
}

template <typename Array>
bool same_entries(const Array& a, const Array& b) {
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(a[0])) == 0);
}

// Closes a descriptor when it goes.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : m_fd(fd) {}
    ~FileDescriptor() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return m_fd; }
    void reset(int fd) {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = fd;
    }

private:
    int m_fd;
};

// The stock server's name of a list file: the same without the leading ".".
std::string undotted(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    const std::string::size_type name = slash == std::string::npos ? 0 : slash + 1;
    if (path.compare(name, 1, ".") != 0 || path.size() == name + 1) {
        return std::string();
    }
    return path.substr(0, name) + path.substr(name + 1);
}

}  // namespace

ZeUIDListImpl::ZeUIDListImpl(const std::string& uidlistFile, std::size_t maxBytes)
    : file(uidlistFile),
      loaded(false),
      parsedOk(true),
      mtime(0),
      fallback(undotted(uidlistFile)),
      maxFileBytes(maxBytes),
      namesFollowUids(true) {}

bool ZeUIDListImpl::parseRecord(const char* line, std::size_t length, std::uint64_t* uidOut,
                                const char** nameOut, std::size_t* nameLength) {
    const char* nameEnd = nullptr;
    if (!parse_line(line, line + length, uidOut, nameOut, &nameEnd)) {
        return false;
    }
    *nameLength = static_cast<std::size_t>(nameEnd - *nameOut);
    return true;
}

bool ZeUIDListImpl::_read_records(int fd, std::size_t fileSize, Batch* batch) {
    // A file larger than the cap (a sparse one says 1 TiB) sizes nothing
    // beyond it: only its first maxFileBytes bytes are read.
    fileSize = std::min(fileSize, maxFileBytes);
    const std::size_t bufferSize = std::max(kMinChunk, std::min(kChunk, fileSize + 1));
    // Zeroed so that the bytes read past the data are defined.
    std::unique_ptr<char[]> buffer(new char[bufferSize + kSlack]());
    char* const data = buffer.get();
    // Names are parts of the file: its size bounds the room they need.
    // Room that is not written to costs no memory and is given back at the
    // end; a file that grew since it was measured only makes the arena grow.
    names.reserve(names.size() + fileSize + kSlack);
    batch->records.reserve(fileSize / 48 + 16);

    RecordSink<Entry> sink{};
    sink.records = batch->records.data();
    sink.arena = names.data();
    sink.arenaSize = names.size();
    sink.uidsAscend = true;
    sink.namesAscend = true;
    // On a re-read, records byUid already holds are not kept at all.
    sink.known = byUid.empty() ? nullptr : byUid.data();
    sink.knownCount = byUid.size();
    auto flush = [&]() {
        batch->records.set_size(sink.count);
        names.set_size(sink.arenaSize);
        batch->uidsAscend = sink.uidsAscend;
        batch->namesAscend = sink.namesAscend;
    };
    // Room for the records of `bytes` bytes of lines: each takes at least
    // four bytes and its feed, and its name is part of it.
    auto makeRoom = [&](std::size_t bytes) {
        flush();
        Entries& records = batch->records;
        if (records.size() + bytes / 5 + 1 > records.capacity()) {
            records.reserve(std::max(records.capacity() + records.capacity() / 2,
                                     records.size() + bytes / 5 + 1));
        }
        if (names.size() + bytes + kSlack > names.capacity()) {
            names.reserve(
                std::max(names.capacity() + names.capacity() / 2, names.size() + bytes + kSlack));
        }
        sink.records = records.data();
        sink.arena = names.data();
    };
    unsigned long lines = 0;
    auto malformed = [&]() {
        basepp::dbg::debug("ZeUIDList", __LINE__, "LoadUIDList", "%s: malformed line %lu",
                           file.c_str(), lines);
        return false;
    };
    // Scans [line, stop), which ends in a feed; true to read on.
    auto scan = [&](const char* line, const char* stop, std::size_t maxLength, bool* ok) {
        makeRoom(static_cast<std::size_t>(stop - line));
        switch (scan_records(&line, stop, maxLength, &sink, &lines)) {
            case ScanEnd::Done:
                return true;
            case ScanEnd::TooLong:
                break;  // reading ends, keeping what came before
            case ScanEnd::Malformed:
                *ok = malformed();
                break;
        }
        return false;
    };

    auto readAll = [&]() {
        std::size_t start = 0;
        std::size_t end = 0;
        std::size_t budget = maxFileBytes;
        bool eof = false;
        bool capped = false;
        bool header = true;
        bool ok = true;
        for (;;) {
            // The complete lines in the buffer.
            const void* lastFeed = ::memrchr(data + start, '\n', end - start);
            if (lastFeed != nullptr) {
                const char* line = data + start;
                const char* const stop = static_cast<const char*>(lastFeed) + 1;
                if (header) {
                    const char* feed = static_cast<const char*>(
                        std::memchr(line, '\n', static_cast<std::size_t>(stop - line)));
                    if (static_cast<std::size_t>(feed - line) > kMaxLine) {
                        return true;  // the header does not fit: nothing is read
                    }
                    header = false;
                    ++lines;
                    line = feed + 1;
                }
                if (!scan(line, stop, kMaxLine, &ok)) {
                    return ok;
                }
                start = static_cast<std::size_t>(stop - data);
            }
            const std::size_t rest = end - start;
            if (rest > kMaxLastLine) {
                return true;  // too long with or without its feed
            }
            if (eof) {
                // The last line, without a feed: it gets one and goes the
                // way of the others (the buffer has room after the data,
                // which is less than a line since the last read). A line
                // the cap cut is dropped.
                if (rest > 0 && !header && !capped) {
                    data[end] = '\n';
                    scan(data + start, data + end + 1, kMaxLastLine, &ok);
                }
                return ok;
            }
            std::memmove(data, data + start, rest);
            start = 0;
            end = rest;
            const std::size_t room = std::min(bufferSize - end, budget);
            if (room == 0) {
                eof = true;
                capped = true;
                continue;
            }
            for (;;) {
                ssize_t got = ::read(fd, data + end, room);
                if (got > 0) {
                    end += static_cast<std::size_t>(got);
                    budget -= static_cast<std::size_t>(got);
                    break;
                }
                if (got < 0 && errno == EINTR) {
                    continue;
                }
                // End of file, or a read error that ends the file here.
                eof = true;
                break;
            }
        }
    };
    bool ok = readAll();
    flush();
    return ok;
}

void ZeUIDListImpl::_add_batch(Batch* batch, std::size_t arenaBefore) {
    Entries& records = batch->records;
    const std::size_t count = records.size();
    if (count == 0) {
        names.shrink_to_fit();
        return;
    }
    const NameOrder nameOrder{names.data()};

    // The batch as two maps of its own; when it is in both orders, one
    // array serves as both.
    const bool shared = batch->uidsAscend && batch->namesAscend;
    Entries freshNames;
    Entries freshUids;
    if (shared) {
        freshUids = std::move(records);
    } else if (batch->uidsAscend) {
        freshNames = sorted_unique(records, nameOrder);
        freshUids = std::move(records);
    } else if (batch->namesAscend) {
        freshUids = sorted_unique(records, UidOrder());
        freshNames = std::move(records);
    } else {
        freshUids = sorted_unique(records, UidOrder());
        freshNames = sorted_unique(records, nameOrder);
        records.clear();
    }
    freshUids.shrink_to_fit();
    freshNames.shrink_to_fit();
    Entries& freshByName = shared ? freshUids : freshNames;

    if (byUid.empty()) {
        // Every record made it into one of the maps, unless some lost both
        // their UID and their name to earlier records.
        if (freshUids.size() < count && freshByName.size() < count) {
            _compact_names(arenaBefore, &freshUids, shared ? nullptr : &freshNames);
        }
        byUid = std::move(freshUids);
        byName = std::move(freshNames);
        namesFollowUids = shared;
        names.shrink_to_fit();
        return;
    }

    // A re-read: entries already there win. The usual one adds records
    // after all the others in both orders, which keeps byUid serving as
    // byName.
    if (namesFollowUids && shared && byUid.back().uid < freshUids[0].uid &&
        nameOrder(byUid.back(), freshUids[0]) < 0) {
        insert_sorted(byUid, freshUids, UidOrder());
        names.shrink_to_fit();
        return;
    }
    Entries addUids = missing_from(byUid, freshUids, UidOrder());
    Entries addNames = missing_from(_names(), freshByName, nameOrder);
    _compact_names(arenaBefore, &addUids, &addNames);
    if (namesFollowUids) {
        byName.reserve(byUid.size() + addNames.size());
        std::memcpy(byName.data(), byUid.data(), byUid.size() * sizeof(Entry));
        byName.set_size(byUid.size());
    }
    insert_sorted(byUid, addUids, UidOrder());
    insert_sorted(byName, addNames, NameOrder{names.data()});
    namesFollowUids = same_entries(byUid, byName);
    if (namesFollowUids) {
        byName.clear();
    }
    names.shrink_to_fit();
}

void ZeUIDListImpl::_compact_names(std::size_t arenaBefore, Entries* first, Entries* second) {
    // The names from arenaBefore on were added by this read; first and
    // second hold every entry that refers to one of them. Keep those names,
    // moved down in arena order so that each lands at or before where it
    // was, and drop the others.
    std::vector<std::uint64_t> used;
    for (Entries* entries : {first, second}) {
        if (entries != nullptr) {
            for (const Entry& entry : *entries) {
                used.push_back(entry.name);
            }
        }
    }
    std::sort(used.begin(), used.end());
    used.erase(std::unique(used.begin(), used.end()), used.end());

    std::vector<std::uint64_t> moved(used.size());
    std::size_t to = arenaBefore;
    for (std::size_t i = 0; i < used.size(); ++i) {
        const std::size_t length = name_length(used[i]);
        std::memmove(names.data() + to, names.data() + name_offset(used[i]), length);
        moved[i] = static_cast<std::uint64_t>(to) << kLengthBits | length;
        to += length;
    }
    for (Entries* entries : {first, second}) {
        if (entries != nullptr) {
            for (std::size_t i = 0; i < entries->size(); ++i) {
                Entry& entry = (*entries)[i];
                auto found = std::lower_bound(used.begin(), used.end(), entry.name);
                entry.name = moved[static_cast<std::size_t>(found - used.begin())];
            }
        }
    }
    names.set_size(to);
}

void ZeUIDListImpl::_clear() {
    nameSlots.clear();
    byUid.clear();
    byName.clear();
    names.clear();
    namesFollowUids = true;
}

void ZeUIDListImpl::LoadUIDList() {
    // O_NONBLOCK: a FIFO put in the file's place must not stall the caller;
    // anything but a regular file counts as unreadable.
    const int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    FileDescriptor fd(::open(file.c_str(), flags));
    if (fd.get() < 0 && errno == ENOENT && !fallback.empty()) {
        fd.reset(::open(fallback.c_str(), flags));
    }
    struct stat st;
    if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        _clear();
        loaded = false;
        mtime = 0;
        return;
    }
    if (loaded && st.st_mtime == mtime) {
        return;
    }
    const std::size_t arenaBefore = names.size();
    Batch batch;
    try {
        parsedOk = _read_records(fd.get(), static_cast<std::size_t>(st.st_size), &batch);
        if (parsedOk) {
            _add_batch(&batch, arenaBefore);
        }
    } catch (const std::bad_alloc&) {
        // Out of memory part way: the maps may be half merged. Lookups give
        // the unknown answers, and the next one starts again from an empty
        // list.
        _clear();
        loaded = false;
        mtime = 0;
        return;
    }
    if (!parsedOk) {
        _clear();
    }
    nameSlots.clear();
    loaded = true;
    mtime = st.st_mtime;
}

namespace {

std::size_t hash_name(const char* name, std::size_t length) {
    return std::hash<std::string_view>()(std::string_view(name, length));
}

}  // namespace

void ZeUIDListImpl::_index_names() {
    const Entries& map = _names();
    // Slots for between 1.5 and 3 times the entries: short probe runs.
    std::size_t slots = 16;
    while (slots < map.size() + map.size() / 2) {
        slots *= 2;
    }
    try {
        nameSlots.assign(slots, Entry{0, 0});
    } catch (const std::bad_alloc&) {
        return;  // the binary search serves
    }
    const std::size_t mask = slots - 1;
    const char* arena = names.data();
    for (const Entry& entry : map) {
        std::size_t slot =
            hash_name(arena + name_offset(entry.name), name_length(entry.name)) & mask;
        while (nameSlots[slot].uid != 0) {
            slot = (slot + 1) & mask;
        }
        nameSlots[slot] = entry;
    }
}

const ZeUIDListImpl::Entry* ZeUIDListImpl::_find_name(const char* name, std::size_t length) const {
    const char* arena = names.data();
    if (!nameSlots.empty()) {
        // Names are unique in the map, so the first equal one is the entry.
        const std::size_t mask = nameSlots.size() - 1;
        for (std::size_t slot = hash_name(name, length) & mask; nameSlots[slot].uid != 0;
             slot = (slot + 1) & mask) {
            const Entry& entry = nameSlots[slot];
            if (name_length(entry.name) == length &&
                std::memcmp(arena + name_offset(entry.name), name, length) == 0) {
                return &entry;
            }
        }
        return nullptr;
    }
    const Entries& map = _names();
    std::size_t low = 0;
    std::size_t high = map.size();
    while (low < high) {
        std::size_t middle = low + (high - low) / 2;
        const std::uint64_t place = map[middle].name;
        int order = compare_names(arena + name_offset(place), name_length(place), name, length);
        if (order < 0) {
            low = middle + 1;
        } else if (order > 0) {
            high = middle;
        } else {
            return &map[middle];
        }
    }
    return nullptr;
}

std::string ZeUIDListImpl::basename(unsigned long uidValue) {
    boost::mutex::scoped_lock lock(mutex);
    LoadUIDList();
    const Entry* found = std::lower_bound(
        byUid.begin(), byUid.end(), static_cast<std::uint64_t>(uidValue),
        [](const Entry& entry, std::uint64_t wanted) { return entry.uid < wanted; });
    if (found == byUid.end() || found->uid != uidValue) {
        return std::string();
    }
    return std::string(names.data() + name_offset(found->name), name_length(found->name));
}

unsigned long ZeUIDListImpl::uid(const std::string& name) {
    boost::mutex::scoped_lock lock(mutex);
    LoadUIDList();
    const Entry* found = _find_name(name.data(), base_length(name));
    return found != nullptr ? found->uid : kUnknownUid;
}

unsigned long ZeUIDListImpl::cached_uid(const std::string& name) {
    {
        boost::mutex::scoped_lock lock(mutex);
        if (loaded) {
            if (nameSlots.empty()) {
                _index_names();
            }
            const Entry* found = _find_name(name.data(), base_length(name));
            if (found != nullptr) {
                return found->uid;
            }
        }
    }
    return uid(name);
}

unsigned long ZeUIDListImpl::match(const std::string& name) {
    boost::mutex::scoped_lock lock(mutex);
    LoadUIDList();
    const char* arena = names.data();
    for (const Entry& entry : _names()) {
        std::string_view base(arena + name_offset(entry.name), name_length(entry.name));
        if (base.find(name) != std::string_view::npos) {
            return entry.uid;
        }
    }
    return kUnknownUid;
}

std::string ZeUIDListManagerImpl::normalise(const std::string& folder) {
    std::string path = folder;
    if (!path.empty() && path.back() == '/') {
        path.pop_back();
    }
    std::string::size_type slash = path.rfind('/');
    if (slash != std::string::npos) {
        std::string last = path.substr(slash + 1);
        if (last == "cur" || last == "new") {
            path.erase(slash);
        }
    }
    return path;
}

boost::shared_ptr<ZeUIDList__> ZeUIDListManagerImpl::GetUIDList(const std::string& folder) {
    std::string path = normalise(folder);
    boost::mutex::scoped_lock lock(mutex);
    for (auto& record : records) {
        if (record.path == path) {
            record.time = ::time(nullptr);
            return record.list;
        }
    }
    return AddUidList(path);
}

boost::shared_ptr<ZeUIDListImpl> ZeUIDListManagerImpl::AddUidList(const std::string& folder) {
    if (records.size() > kMaxKept) {
        records.sort();  // stable: records last used in the same second keep their order
        while (records.size() > kMaxKept) {
            records.pop_front();
        }
    }
    auto list = boost::make_shared<ZeUIDListImpl>(folder + kUidListName);
    records.push_back(uidlist_record_t{folder, ::time(nullptr), list});
    return list;
}

std::size_t ZeUIDListManagerImpl::cached() const {
    boost::mutex::scoped_lock lock(mutex);
    return records.size();
}

boost::shared_ptr<ZeUIDListManager__> ZeUIDListManager__::instance() {
    static const boost::shared_ptr<ZeUIDListManager__> manager =
        boost::make_shared<ZeUIDListManagerImpl>();
    return manager;
}

namespace {
// Makes the manager while the library is loaded, before any thread of the
// program can ask for it.
const boost::shared_ptr<ZeUIDListManager__> g_made_at_load = ZeUIDListManager__::instance();
}  // namespace
