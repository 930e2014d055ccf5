// Scopes and filters for tests of the mailbox model: the smallest terms that
// exercise what a mailbox does with a scope-and-filter object, without
// depending on the library's own scopes and filters.
#ifndef ZEMAIL_TESTS_SUPPORT_MODEL_FAKES_H
#define ZEMAIL_TESTS_SUPPORT_MODEL_FAKES_H

#include <functional>
#include <string>

#include "model/ZeMScopeAndFilter.h"
#include "model/ZeMailBox.h"

namespace zetest {

// Positions start..end-1 counted from the newest message.
class RangeScope : public ZeMScopeImpl {
public:
    RangeScope(long start, long end) : m_start(start), m_end(end) {}
    static ZeMScopeRef make(long start, long end) {
        return ZeMScopeRef(Corvane::Ref<ZeMScopeImpl>::adopt(new RangeScope(start, end)));
    }
    bool range(long& start, long& end) const override {
        start = m_start;
        end = m_end;
        return true;
    }
    std::string imap_criteria() const override { return std::string(); }
    bool match(ZeMessageEnv&) override { return true; }
    bool match(ZeMessageBase&) override { return true; }

private:
    long m_start;
    long m_end;
};

// A term with fixed criteria whose local test looks at the Subject header;
// counts its match() and reset() calls.
template <class Base>
class SubjectTerm : public Base {
public:
    SubjectTerm(std::string criteria, std::string subject)
        : m_criteria(std::move(criteria)), m_subject(std::move(subject)) {}
    std::string imap_criteria() const override { return m_criteria; }
    bool match(ZeMessageEnv&) override { return true; }
    bool match(ZeMessageBase& message) override {
        ++matches;
        return message.headers().get("Subject") == m_subject;
    }
    bool done() const override { return finished; }
    void reset() override { ++resets; }

    int matches = 0;
    int resets = 0;
    bool finished = false;

private:
    std::string m_criteria;
    std::string m_subject;
};

using SubjectFilter = SubjectTerm<ZeMFilterImpl>;
using SubjectScope = SubjectTerm<ZeMScopeImpl>;

// "SUBJECT \"<subject>\"", matching that exact Subject locally.
inline ZeMFilterRef subject_filter(const std::string& subject, SubjectFilter** raw = nullptr) {
    auto* made = new SubjectFilter("SUBJECT \"" + subject + "\"", subject);
    if (raw != nullptr) {
        *raw = made;
    }
    return ZeMFilterRef(Corvane::Ref<ZeMFilterImpl>::adopt(made));
}

}  // namespace zetest

#endif
