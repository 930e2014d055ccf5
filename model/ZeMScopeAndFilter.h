#ifndef ZEMAIL_MODEL_ZE_M_SCOPE_AND_FILTER_H
#define ZEMAIL_MODEL_ZE_M_SCOPE_AND_FILTER_H

// Which messages of a mailbox a caller wants: at most one scope (which part
// of the mailbox: a UID, a range counted from the newest message, a date,
// ...) and any number of filters (search text, status, header, ...). Every
// scope and filter can say two things:
//
//   - the IMAP SEARCH criteria that select its messages on the server
//     ("SINCE 1-Jan-2024", "SUBJECT \"report\""); the IMAP mailbox sends
//     them in one UID SEARCH when it opens;
//   - whether one message matches, for the stores read from disk, which
//     walk their messages and ask match() for each (first on the envelope,
//     which is cheap, then on the whole message).
//
// done() lets a scope end a walk early (a UID scope that has found its
// message); reset() rewinds that state for a new walk.
//
// The concrete scopes and filters derive from ZeMScopeImpl and
// ZeMFilterImpl. ZeMScopeAndFilterImpl combines one scope and the filters:
// criteria are joined as IMAP joins search keys (a blank for AND, "OR a b"
// for OR) and matches are combined the same way.
//
// Objects are held by handles and used by one thread at a time.

#include <string>
#include <vector>

#include "include2/VantroRefcounted"

class ZeMessageBase;
class ZeMessageEnv;

// What scopes and filters have in common.
class ZeMSearchTerm : public Corvane::RefImpl {
public:
    ~ZeMSearchTerm() override = default;

    // The IMAP SEARCH criteria of this term; "" selects everything.
    virtual std::string imap_criteria() const = 0;
    // True when the message (its envelope, or the whole message) belongs to
    // the selection. The envelope test runs first; a term that needs headers
    // or content answers true there and decides on the message.
    virtual bool match(ZeMessageEnv& envelope) = 0;
    virtual bool match(ZeMessageBase& message) = 0;
    // True when no further message can match (the walk may stop).
    virtual bool done() const { return false; }
    // Rewinds whatever a walk has changed.
    virtual void reset() {}
};

// A scope. A range scope counts positions from the newest message (0 is the
// newest) and answers range() with its first and last position; the IMAP
// mailbox lists exactly that slice of its undeleted messages.
class ZeMScopeImpl : public ZeMSearchTerm {
public:
    // True for a range scope, with its positions in start and end.
    virtual bool range(long& start, long& end) const {
        (void)start;
        (void)end;
        return false;
    }
};

class ZeMFilterImpl : public ZeMSearchTerm {};

class ZeMScopeRef : public Corvane::Ref<ZeMScopeImpl> {
public:
    using Corvane::Ref<ZeMScopeImpl>::Ref;
    ZeMScopeRef() = default;
    ZeMScopeRef(const Corvane::Ref<ZeMScopeImpl>& other)  // NOLINT: same handle
        : Corvane::Ref<ZeMScopeImpl>(other) {}
};

class ZeMFilterRef : public Corvane::Ref<ZeMFilterImpl> {
public:
    using Corvane::Ref<ZeMFilterImpl>::Ref;
    ZeMFilterRef() = default;
    ZeMFilterRef(const Corvane::Ref<ZeMFilterImpl>& other)  // NOLINT: same handle
        : Corvane::Ref<ZeMFilterImpl>(other) {}
};

// One scope and a list of filters joined by AND and OR, left to right:
// andFilter(a), orFilter(b), andFilter(c) selects ((a OR b) AND c).
class ZeMScopeAndFilterImpl : public Corvane::RefImpl {
public:
    // A later scope replaces the earlier one; null handles are ignored.
    virtual void setScope(const ZeMScopeRef& scope);
    virtual void andFilter(const ZeMFilterRef& filter);
    virtual void orFilter(const ZeMFilterRef& filter);

    const ZeMScopeRef& scope() const { return m_scope; }
    // The number of filters held.
    std::size_t filter_count() const { return m_filters.size(); }
    bool has_filter() const { return !m_filters.empty(); }
    // True, with the positions, when the scope is a range scope.
    bool range(long& start, long& end) const;

    // The scope's criteria, then the filters' (see the class comment);
    // "" when nothing narrows the selection.
    virtual std::string imap_criteria() const;
    virtual bool match(ZeMessageEnv& envelope);
    virtual bool match(ZeMessageBase& message);
    virtual bool done() const;
    virtual void reset();

private:
    struct Joined {
        ZeMFilterRef filter;
        bool with_or;
    };
    template <class Target>
    bool _match(Target& target);

    ZeMScopeRef m_scope;
    std::vector<Joined> m_filters;
};

class ZeMScopeAndFilterRef : public Corvane::Ref<ZeMScopeAndFilterImpl> {
public:
    using Corvane::Ref<ZeMScopeAndFilterImpl>::Ref;
    ZeMScopeAndFilterRef() = default;
    ZeMScopeAndFilterRef(const Corvane::Ref<ZeMScopeAndFilterImpl>& other)  // NOLINT
        : Corvane::Ref<ZeMScopeAndFilterImpl>(other) {}

    // A new, empty combination (no scope, no filter).
    static ZeMScopeAndFilterRef createScopeAndFilter();
};

#endif
