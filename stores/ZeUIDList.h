#ifndef ZEMAIL_STORES_ZE_UID_LIST_H
#define ZEMAIL_STORES_ZE_UID_LIST_H

// The IMAP UIDs of the files of a Maildir folder, as the IMAP server records
// them in "<folder>/.dovecot-uidlist". The Maildir back-end asks here so that
// it reports the same UIDs as the IMAP path. A folder without that file is
// read through "<folder>/dovecot-uidlist", the name a stock Dovecot uses (the
// appliance's server keeps the dotted one).
//
// The file as read (read only, never written):
//
//   3 V1700000000 N4 G...                    header, skipped unexamined
//   1 :1700000000.M1P7.host,S=987:2,S         <uid> <blank> [fields] ":" <name>
//   5 W989 :1700000005.M2P7.host              fields before ":" are ignored
//
// A record is a decimal UID (not 0, first character a digit, at most 64 bits),
// exactly one blank (space or tab) right after the digits, then any text up
// to the first ":", then the file name up to its first "," (or its ":2," /
// ":3," info marker when that comes first, stores/ZeMaildirName.h) or the
// line end; the stored name is the Maildir base name. Reading stops at the
// first line that breaks this (and then forgets everything read so far), at
// the end of the file, at a line that does not fit a 1024-byte line buffer
// (1023 bytes with its line feed; records before it are kept), and after
// kMaxFileBytes bytes (records wholly before them are kept). A record with
// an empty name is skipped: no file can have it.
//
// The maps keep the first mapping they see for a UID and for a name, and a
// re-read after the file changed adds to them without emptying them: once
// UID 5 named a file, basename(5) keeps naming it until the file vanishes
// (which empties the list) and is read again from scratch.
//
// Lookups never fail: unknown answers are (unsigned long)-1 for a UID and ""
// for a name. Everything is safe to call from several threads.
//
//   boost::shared_ptr<ZeUIDList__> list =
//       ZeUIDListManager__::instance()->GetUIDList("/mail/u/Maildir/.Sent/cur");
//   unsigned long uid = list->uid("1700000005.M2P7.host,S=42:2,RS");  // 5

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <list>
#include <new>
#include <string>
#include <vector>
#include <type_traits>
#include <utility>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

// One folder's list.
class ZeUIDList__ {
public:
    virtual ~ZeUIDList__() = default;
    // The base name of the file with that UID, or "".
    virtual std::string basename(unsigned long uid) = 0;
    // The UID of a file; name is cut to its base name. (unsigned long)-1
    // when unknown.
    virtual unsigned long uid(const std::string& name) = 0;
    // The UID of the first entry, in ascending byte order of base names,
    // whose base name contains name anywhere (an empty name is in every
    // one); (unsigned long)-1 when none does. A linear scan.
    virtual unsigned long match(const std::string& name) = 0;
    // uid(name) for walks over a folder: a name the list already knows is
    // answered from the maps as they stood at the last read, without looking
    // at the file again (a known name keeps its UID across re-reads anyway);
    // any other name goes to uid(), which re-reads a changed file. A walk
    // calls uid() for its first name and this for the rest.
    virtual unsigned long cached_uid(const std::string& name) = 0;
};

// A growable array of trivially copyable values in one malloc'd block. It
// grows and shrinks through realloc, which for large blocks remaps pages
// instead of copying bytes, so an array can be sized for the worst case and
// trimmed once its contents are known: pages never written cost nothing.
template <typename T>
class ZeUIDListArray {
    static_assert(std::is_trivially_copyable<T>::value, "values are moved as bytes");

public:
    ZeUIDListArray() = default;
    ~ZeUIDListArray() { std::free(m_data); }
    ZeUIDListArray(ZeUIDListArray&& other) noexcept { swap(other); }
    ZeUIDListArray& operator=(ZeUIDListArray&& other) noexcept {
        ZeUIDListArray gone(std::move(other));
        swap(gone);
        return *this;
    }
    ZeUIDListArray(const ZeUIDListArray&) = delete;
    ZeUIDListArray& operator=(const ZeUIDListArray&) = delete;

    void swap(ZeUIDListArray& other) noexcept {
        std::swap(m_data, other.m_data);
        std::swap(m_size, other.m_size);
        std::swap(m_capacity, other.m_capacity);
    }

    T* data() { return m_data; }
    const T* data() const { return m_data; }
    const T* begin() const { return m_data; }
    const T* end() const { return m_data + m_size; }
    std::size_t size() const { return m_size; }
    std::size_t capacity() const { return m_capacity; }
    bool empty() const { return m_size == 0; }
    T& operator[](std::size_t i) { return m_data[i]; }
    const T& operator[](std::size_t i) const { return m_data[i]; }
    T& back() { return m_data[m_size - 1]; }
    const T& back() const { return m_data[m_size - 1]; }

    void push_back(const T& value) {
        if (m_size == m_capacity) {
            reserve(m_capacity < 16 ? 16 : m_capacity + m_capacity / 2);
        }
        m_data[m_size++] = value;
    }
    // Room for n values in all; never shrinks. Throws std::bad_alloc.
    void reserve(std::size_t n) {
        if (n > m_capacity) {
            _reallocate(n);
        }
    }
    // Sets the size to n <= capacity(); values past the old size are
    // whatever the caller wrote there.
    void set_size(std::size_t n) { m_size = n; }
    // Gives back the room past the end.
    void shrink_to_fit() {
        if (m_size == 0) {
            clear();
        } else if (m_size < m_capacity) {
            _reallocate(m_size);
        }
    }
    void clear() {
        std::free(m_data);
        m_data = nullptr;
        m_size = 0;
        m_capacity = 0;
    }

private:
    void _reallocate(std::size_t n) {
        if (n > static_cast<std::size_t>(-1) / sizeof(T)) {
            throw std::bad_alloc();
        }
        void* moved = std::realloc(m_data, n * sizeof(T));
        if (moved == nullptr) {
            throw std::bad_alloc();
        }
        m_data = static_cast<T*>(moved);
        m_capacity = n;
    }

    T* m_data = nullptr;
    std::size_t m_size = 0;
    std::size_t m_capacity = 0;
};

class ZeUIDListImpl : public ZeUIDList__ {
public:
    static constexpr unsigned long kUnknownUid = static_cast<unsigned long>(-1);
    // The line buffer: a line with its line feed must fit, so it has at most
    // kLineBufferSize - 2 bytes before the line feed.
    static constexpr std::size_t kLineBufferSize = 1024;
    // Bytes of the file read at most, which bounds what a list reserves and
    // holds (the names, plus 16 to 32 bytes a record of at least 5 bytes).
    // A server's list of 1,000,000 messages takes some 60 MB; a larger file
    // (a sparse one may say 1 TiB) is read up to here, its later records
    // unknown.
    static constexpr std::size_t kMaxFileBytes = std::size_t{256} << 20;

    // A list for the file at that path (when it is missing, the same name
    // without its leading "."); nothing is read before the first lookup.
    // maxBytes lowers the cap for tests.
    explicit ZeUIDListImpl(const std::string& uidlistFile, std::size_t maxBytes = kMaxFileBytes);

    std::string basename(unsigned long uid) override;
    unsigned long uid(const std::string& name) override;
    unsigned long match(const std::string& name) override;
    unsigned long cached_uid(const std::string& name) override;

    const std::string& path() const { return file; }

    // One record line without its line feed, as described at the top.
    // Returns false when the line breaks the grammar; otherwise stores the
    // UID and the base name's place inside line (its length may be 0).
    static bool parseRecord(const char* line, std::size_t length, std::uint64_t* uidOut,
                            const char** nameOut, std::size_t* nameLength);

private:
    // One mapping of either map: a UID and where its base name lies in the
    // name arena (offset << 10 | length; a name fits the line buffer).
    struct Entry {
        std::uint64_t uid;
        std::uint64_t name;
    };
    using Entries = ZeUIDListArray<Entry>;

    // The records of one read of the file, in file order, their names
    // already in the arena.
    struct Batch {
        Entries records;
        bool uidsAscend = true;   // every UID larger than the one before
        bool namesAscend = true;  // every name after the one before in byte order
    };

    // Brings the maps up to date with the file; called with mutex held.
    void LoadUIDList();
    // Reads the records of an opened file into batch and the arena; returns
    // false when a line broke the grammar.
    bool _read_records(int fd, std::size_t fileSize, Batch* batch);
    // Puts what one read found into the maps; entries already there win.
    void _add_batch(Batch* batch, std::size_t arenaBefore);
    // Drops the names this read added to the arena (from arenaBefore on)
    // that no entry of first or second (either may be null) refers to.
    void _compact_names(std::size_t arenaBefore, Entries* first, Entries* second);
    void _clear();
    // The entry of a base name, or null.
    const Entry* _find_name(const char* name, std::size_t length) const;
    // Builds nameSlots for the maps as they are (walks look every file up).
    void _index_names();
    const Entries& _names() const { return namesFollowUids ? byUid : byName; }

    // The two maps are sorted arrays searched by binary search.
    Entries byUid;     // UID -> base name: sorted by UID, one entry per UID
    Entries byName;    // base name -> UID: sorted by the names' bytes, one entry per
                       // name; left empty while namesFollowUids
    std::string file;  // <folder>/.dovecot-uidlist
    bool loaded;       // the maps reflect the file as of mtime
    bool parsedOk;     // the last read met no malformed line
    time_t mtime;      // the file's modification time when last read
    boost::mutex mutex;
    // <folder>/dovecot-uidlist, read when file is missing ("" when file's
    // name has no leading ".").
    std::string fallback;
    const std::size_t maxFileBytes;  // bytes of the file read at most
    // The bytes of the base names the maps refer to, back to back; the two
    // entries a record gives share one copy.
    ZeUIDListArray<char> names;
    // True while byName would hold exactly byUid's entries in the same order
    // (the usual case: the server's names begin with the delivery time);
    // byUid then serves as both.
    bool namesFollowUids;
    // A hash index over _names() for walks: open addressing, each slot a
    // copy of its entry (UID 0: empty), so that a hit reads the slot and the
    // name only. Made by the first cached_uid() after a read, dropped
    // whenever the maps change; until then look-ups use the binary search.
    std::vector<Entry> nameSlots;
};

// One cached folder of the manager.
struct uidlist_record_t {
    std::string path;  // the normalised folder path
    time_t time;       // last use
    boost::shared_ptr<ZeUIDListImpl> list;

    bool operator<(const uidlist_record_t& other) const { return time < other.time; }
};

// The process-wide cache of folder lists.
class ZeUIDListManager__ {
public:
    virtual ~ZeUIDListManager__() = default;
    // The list of a folder. A trailing "/" and a last component "cur" or
    // "new" are dropped first, so ".../Sent", ".../Sent/" and ".../Sent/cur/"
    // share one list. Never null.
    virtual boost::shared_ptr<ZeUIDList__> GetUIDList(const std::string& folder) = 0;

    // The one manager of the process, made when the library is loaded and
    // kept until the process ends.
    static boost::shared_ptr<ZeUIDListManager__> instance();
};

// Keeps the lists of at most ten folders; asking for another one first drops
// the least recently used down to nine. A dropped list lives on while a
// caller still holds it.
class ZeUIDListManagerImpl : public ZeUIDListManager__ {
public:
    static constexpr std::size_t kMaxKept = 9;  // kept before a new one is added

    boost::shared_ptr<ZeUIDList__> GetUIDList(const std::string& folder) override;

    // A new list for the (normalised) folder path; called with mutex held.
    boost::shared_ptr<ZeUIDListImpl> AddUidList(const std::string& folder);

    // The path under which GetUIDList caches a folder.
    static std::string normalise(const std::string& folder);

    std::size_t cached() const;

private:
    std::list<uidlist_record_t> records;
    mutable boost::mutex mutex;
};

#endif
