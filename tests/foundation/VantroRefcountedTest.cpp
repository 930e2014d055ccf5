// Corvane::RefImpl / RefCounted / Ref: counting, copying, misuse reports and
// deletion of the shared object, on one thread and on several.
#include "include2/VantroRefcounted"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Corvane::Exception;
using Corvane::Ref;
using Corvane::RefCounted;
using Corvane::RefImpl;

// Counts destructor runs so that tests can see deletion happen, once.
struct Base : RefImpl {
    explicit Base(int* deleted) : m_deleted(deleted) {}
    ~Base() override { ++*m_deleted; }
    int* m_deleted;
};

// Deleted through Base's pointer type: its own destructor must still run.
struct Derived : Base {
    Derived(int* deleted, int* derived_deleted) : Base(deleted), m_derived(derived_deleted) {}
    ~Derived() override { ++*m_derived; }
    int* m_derived;
};

struct Other : RefImpl {};

// Runs f and checks the Corvane::Exception it must throw.
void expect_throw(const std::function<void()>& f, const std::string& text, int code,
                  const std::string& file, int line) {
    try {
        f();
        ADD_FAILURE() << "no exception, expected " << text;
    } catch (const Exception& e) {
        EXPECT_EQ(text, e.text());
        EXPECT_STREQ(text.c_str(), e.what());
        EXPECT_EQ(code, e.code());
        EXPECT_EQ(file, e.file());
        EXPECT_EQ(line, e.line());
    }
}

TEST(Handles, AdoptKeepsTheCreatorsCountWhileRawPointerAddsOne) {
    int deleted = 0;
    Base* raw = new Base(&deleted);
    EXPECT_EQ(1, raw->ref_count());
    {
        Ref<Base> owner = Ref<Base>::adopt(raw);
        EXPECT_EQ(1, raw->ref_count());
        {
            Ref<Base> counted(raw);  // the object is owned elsewhere: one more count
            EXPECT_EQ(2, raw->ref_count());
        }
        EXPECT_EQ(1, raw->ref_count());
        EXPECT_EQ(0, deleted);
    }
    EXPECT_EQ(1, deleted);

    const std::string text = "RefCounted constructor for RefImpl failed.";
    expect_throw([] { RefCounted<Base> holder(nullptr, true); }, text, 4, "", 0);
    expect_throw([] { Ref<Base> handle(static_cast<Base*>(nullptr)); }, text, 4, "", 0);
}

TEST(Handles, CopiesShareTheObjectAndCompareByIdentity) {
    int deleted = 0;
    Ref<Base> a = Ref<Base>::adopt(new Base(&deleted));
    Base* raw = a.get();

    Ref<Base> b(a);
    EXPECT_EQ(2, raw->ref_count());
    EXPECT_NE(a.holder(), b.holder());  // each handle has its own holder
    EXPECT_TRUE(a == b);
    EXPECT_TRUE(*a.holder() == *b.holder());

    // Assigning over a handle on another object drops that one.
    int other_deleted = 0;
    Ref<Base> c = Ref<Base>::adopt(new Base(&other_deleted));
    EXPECT_TRUE(a != c);  // two objects, however alike
    EXPECT_TRUE(*a.holder() != *c.holder());
    c = a;
    EXPECT_EQ(1, other_deleted);
    EXPECT_EQ(3, raw->ref_count());

    a = a;  // self-assignment: nothing changes
    b = c;  // between handles on the same object: the count stays
    EXPECT_EQ(3, raw->ref_count());
    EXPECT_EQ(raw, a.get());

    // Copying an empty handle empties the target and drops its count.
    Ref<Base> empty;
    b = empty;
    c = empty;
    EXPECT_EQ(nullptr, b.holder());
    EXPECT_EQ(1, raw->ref_count());
    EXPECT_TRUE(b == empty);
    EXPECT_FALSE(a == empty);
    Ref<Base> copy_of_empty(empty);
    EXPECT_EQ(nullptr, copy_of_empty.holder());
    a = empty;
    EXPECT_EQ(1, deleted);
}

TEST(Handles, LastHandleDeletesOnceThroughVirtualDestructor) {
    int base_deleted = 0;
    int derived_deleted = 0;
    {
        Ref<Base> first = Ref<Base>::adopt(new Derived(&base_deleted, &derived_deleted));
        Ref<Base> second(first);
        Ref<Base> third;
        third = second;
        first.release();
        EXPECT_EQ(nullptr, first.holder());
        second.release();
        second.release();  // releasing an empty handle drops nothing
        EXPECT_EQ(0, base_deleted);
        EXPECT_EQ(1, third->ref_count());
    }
    EXPECT_EQ(1, base_deleted);
    EXPECT_EQ(1, derived_deleted);
}

TEST(Handles, AccessorsOnHandleWithoutHolderThrowWithTheirLine) {
    Ref<Base> empty;
    const Ref<Base>& const_empty = empty;
    const std::string file = "include2/VantroRefcounted";
    expect_throw([&] { (void)empty.operator->(); }, "operator->", 1, file, 359);
    expect_throw([&] { (void)const_empty.operator->(); }, "operator->", 1, file, 368);
    expect_throw([&] { (void)*empty; }, "operator*", 1, file, 377);
    expect_throw([&] { (void)*const_empty; }, "operator*", 1, file, 386);

    // A released handle is empty in the same way.
    int deleted = 0;
    Ref<Base> gone = Ref<Base>::adopt(new Base(&deleted));
    gone.release();
    expect_throw([&] { (void)gone.operator->(); }, "operator->", 1, file, 359);
}

TEST(Handles, HolderBuiltEmptyGivesNullFromArrowAndCopiesStayEmpty) {
    Ref<Base> empty_holder = Ref<Base>::adopt(nullptr);
    const Ref<Base>& as_const = empty_holder;
    ASSERT_NE(nullptr, empty_holder.holder());
    EXPECT_EQ(nullptr, empty_holder.operator->());
    EXPECT_EQ(nullptr, as_const.operator->());
    EXPECT_TRUE(empty_holder.isNull());
    EXPECT_FALSE(static_cast<bool>(empty_holder));
    EXPECT_TRUE(empty_holder == Ref<Base>());
    // There is no object to hand out by reference: dereferencing throws.
    EXPECT_THROW((void)*empty_holder, Exception);

    // Copies of it get a holder of their own, empty as well, and assigning
    // it over a full handle drops that handle's count.
    Ref<Base> copy(empty_holder);
    ASSERT_NE(nullptr, copy.holder());
    EXPECT_NE(empty_holder.holder(), copy.holder());
    EXPECT_EQ(nullptr, copy.operator->());
    int deleted = 0;
    Ref<Base> full = Ref<Base>::adopt(new Base(&deleted));
    full = empty_holder;
    EXPECT_EQ(1, deleted);
    ASSERT_NE(nullptr, full.holder());
    EXPECT_EQ(nullptr, full.get());
}

TEST(Handles, MoveTransfersWithoutCounting) {
    int deleted = 0;
    Ref<Base> a = Ref<Base>::adopt(new Base(&deleted));
    Base* raw = a.get();

    Ref<Base> b(std::move(a));
    EXPECT_EQ(nullptr, a.holder());  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(raw, b.get());
    EXPECT_EQ(1, raw->ref_count());

    Ref<Base> c(b);
    c = std::move(b);  // the old count of c goes, b's moves in
    EXPECT_EQ(1, raw->ref_count());
    EXPECT_EQ(nullptr, b.holder());  // NOLINT(bugprone-use-after-move)

    Ref<Base>& alias = c;
    c = std::move(alias);  // self-move keeps the handle
    EXPECT_EQ(raw, c.get());
    EXPECT_EQ(1, raw->ref_count());

    int other_deleted = 0;
    Ref<Base> d = Ref<Base>::adopt(new Base(&other_deleted));
    d = std::move(c);
    EXPECT_EQ(1, other_deleted);
    EXPECT_EQ(0, deleted);
    d.release();
    EXPECT_EQ(1, deleted);
}

// A list node owning the next one: walking with a = a->next drops the node
// that holds the source while the assignment still reads it.
struct Node : RefImpl {
    Node(int* deleted, int value) : m_deleted(deleted), m_value(value) {}
    ~Node() override {
        ++*m_deleted;
        m_value = -1;  // a read after this shows as a wrong value (and under ASan)
    }
    int* m_deleted;
    int m_value;
    Ref<Node> m_next;
};

TEST(Handles, AssignmentFromAMemberOfTheDroppedObjectIsSafe) {
    for (const bool move : {false, true}) {
        int deleted = 0;
        Ref<Node> head = Ref<Node>::adopt(new Node(&deleted, 0));
        head->m_next = Ref<Node>::adopt(new Node(&deleted, 1));
        head->m_next->m_next = Ref<Node>::adopt(new Node(&deleted, 2));
        std::vector<int> seen;
        while (!head.isNull()) {
            seen.push_back(head->m_value);
            if (move) {
                head = std::move(head->m_next);
            } else {
                head = head->m_next;
            }
        }
        EXPECT_EQ((std::vector<int>{0, 1, 2}), seen) << (move ? "move" : "copy");
        EXPECT_EQ(3, deleted) << (move ? "move" : "copy");
    }
}

TEST(Handles, DerivedConvertsToBaseAndCastsBack) {
    int deleted = 0;
    int derived_deleted = 0;
    Ref<Derived> derived = Ref<Derived>::adopt(new Derived(&deleted, &derived_deleted));
    {
        Ref<Base> base(derived);
        EXPECT_EQ(static_cast<Base*>(derived.get()), base.get());
        EXPECT_EQ(2, derived->ref_count());

        Ref<Derived> back = Corvane::ref_cast<Derived>(base);
        EXPECT_TRUE(back == derived);
        EXPECT_EQ(3, derived->ref_count());

        // The wrong type gives an empty handle and takes no count.
        Ref<Other> wrong = Corvane::ref_cast<Other>(base);
        EXPECT_EQ(nullptr, wrong.holder());
        EXPECT_EQ(3, derived->ref_count());
    }
    EXPECT_EQ(1, derived->ref_count());

    // Converting empty handles: none stays none, an empty holder stays empty.
    Ref<Derived> none;
    Ref<Base> base_none(none);
    EXPECT_EQ(nullptr, base_none.holder());
    Ref<Derived> empty_holder = Ref<Derived>::adopt(nullptr);
    Ref<Base> base_empty(empty_holder);
    ASSERT_NE(nullptr, base_empty.holder());
    EXPECT_EQ(nullptr, base_empty.get());
    EXPECT_EQ(nullptr, Corvane::ref_cast<Derived>(base_empty).holder());

    derived.release();
    EXPECT_EQ(1, derived_deleted);
}

// Handles to one object copied, assigned, moved and dropped on several threads
// at once. The object must go exactly once, and never while a thread still
// holds a handle to it.
std::atomic<int> g_shared_deleted{0};

struct Shared : RefImpl {
    ~Shared() override { g_shared_deleted.fetch_add(1); }
};

TEST(Handles, ConcurrentCopiesAndDropsDeleteExactlyOnceAfterTheLast) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 100000;
    g_shared_deleted = 0;

    std::vector<Ref<Shared>> starts;
    {
        Ref<Shared> creator = Ref<Shared>::adopt(new Shared);
        for (int i = 0; i < kThreads; ++i) {
            starts.push_back(creator);
        }
        EXPECT_EQ(kThreads + 1, creator->ref_count());
    }  // from here on only the threads' handles keep the object

    std::atomic<int> ready{0};
    std::atomic<int> seen_deleted{0};
    std::atomic<int> seen_low_count{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            Ref<Shared> mine(std::move(starts[t]));
            ready.fetch_add(1);
            while (ready.load() < kThreads) {
                std::this_thread::yield();
            }
            Ref<Shared> slots[4];
            for (int i = 0; i < kRounds; ++i) {
                Ref<Shared>& slot = slots[i % 4];
                switch (i % 5) {
                    case 0:
                        slot = mine;
                        break;
                    case 1: {
                        Ref<Shared> copy(mine);
                        slot = std::move(copy);
                        break;
                    }
                    case 2:
                        slot.release();
                        break;
                    case 3:
                        slot = Ref<Shared>(mine.get());
                        break;
                    default:
                        slot = slots[(i + 1) % 4];
                        break;
                }
                // This thread holds mine: the count is at least one and the
                // object is still there.
                if (mine->ref_count() < 1) {
                    seen_low_count.fetch_add(1);
                }
                if (g_shared_deleted.load() != 0) {
                    seen_deleted.fetch_add(1);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, seen_deleted.load());
    EXPECT_EQ(0, seen_low_count.load());
    EXPECT_EQ(1, g_shared_deleted.load());
}

}  // namespace
