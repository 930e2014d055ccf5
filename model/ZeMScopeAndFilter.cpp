#include "model/ZeMScopeAndFilter.h"

#include "model/ZeMailBox.h"

void ZeMScopeAndFilterImpl::setScope(const ZeMScopeRef& scope) {
    if (!scope.isNull()) {
        m_scope = scope;
    }
}

void ZeMScopeAndFilterImpl::andFilter(const ZeMFilterRef& filter) {
    if (!filter.isNull()) {
        m_filters.push_back(Joined{filter, false});
    }
}

void ZeMScopeAndFilterImpl::orFilter(const ZeMFilterRef& filter) {
    if (!filter.isNull()) {
        m_filters.push_back(Joined{filter, true});
    }
}

bool ZeMScopeAndFilterImpl::range(long& start, long& end) const {
    return !m_scope.isNull() && m_scope->range(start, end);
}

// IMAP joins search keys with a blank (AND); "OR a b" takes the next two
// keys. Each term is put in parentheses so that a term of several keys stays
// one operand: ((a OR b) AND c) is "(OR (a) (b)) (c)". An empty text stands
// for every message: AND with it changes nothing, OR with it selects all.
std::string ZeMScopeAndFilterImpl::imap_criteria() const {
    std::string filters;
    bool first = true;
    for (const Joined& joined : m_filters) {
        const std::string term = joined.filter->imap_criteria();
        const std::string operand = term.empty() ? std::string() : "(" + term + ")";
        if (first) {
            filters = operand;
            first = false;
        } else if (joined.with_or) {
            filters = filters.empty() || operand.empty() ? std::string()
                                                         : "(OR " + filters + " " + operand + ")";
        } else if (filters.empty()) {
            filters = operand;
        } else if (!operand.empty()) {
            filters += " " + operand;
        }
    }
    std::string scope = m_scope.isNull() ? std::string() : m_scope->imap_criteria();
    if (!scope.empty()) {
        scope = "(" + scope + ")";
    }
    if (scope.empty()) {
        return filters;
    }
    return filters.empty() ? scope : scope + " " + filters;
}

template <class Target>
bool ZeMScopeAndFilterImpl::_match(Target& target) {
    if (!m_scope.isNull() && !m_scope->match(target)) {
        return false;
    }
    bool result = true;
    bool first = true;
    for (Joined& joined : m_filters) {
        if (first) {
            result = joined.filter->match(target);
            first = false;
        } else if (joined.with_or) {
            result = result || joined.filter->match(target);
        } else {
            result = result && joined.filter->match(target);
        }
    }
    return result;
}

bool ZeMScopeAndFilterImpl::match(ZeMessageEnv& envelope) {
    return _match(envelope);
}

bool ZeMScopeAndFilterImpl::match(ZeMessageBase& message) {
    return _match(message);
}

bool ZeMScopeAndFilterImpl::done() const {
    return !m_scope.isNull() && m_scope->done();
}

void ZeMScopeAndFilterImpl::reset() {
    if (!m_scope.isNull()) {
        m_scope->reset();
    }
    for (Joined& joined : m_filters) {
        joined.filter->reset();
    }
}

ZeMScopeAndFilterRef ZeMScopeAndFilterRef::createScopeAndFilter() {
    return ZeMScopeAndFilterRef(
        Corvane::Ref<ZeMScopeAndFilterImpl>::adopt(new ZeMScopeAndFilterImpl()));
}
