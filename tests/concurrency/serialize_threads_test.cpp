// Serialization across threads: workers deserialize through the type
// registry while others register and unregister creators, and serialize one
// shared chain while it is being read elsewhere. ThreadSanitizer checks the
// registry and the processed marks; the allocators check the balance.
#include <atomic>
#include <thread>
#include <vector>

#include "support/test_host.hpp"
#include "vrk/exception_types.hpp"
#include "vrk/sstream.hpp"

namespace {

using vrk::exception;

constexpr int THREADS = 4;
constexpr int ROUNDS = 300;
const vrk::error_code CODE{21, "shared $N$", nullptr};

vrk::auto_ptr<exception, vrk::default_deleter> creator_a(vrk::istream& inp,
                                                         vrk::allocator& alloc) {
    return exception::deserialize(inp, alloc); // never reached: only looked up
}

class SerializeThreads : public vrk_test::host_fixture {};

TEST_F(SerializeThreads, LookupsRegistrationAndSharedWriters) {
    exception shared("t.src", 1, CODE, exception::CALLER_SUPPRESS_STACK_TRACE);
    shared << vrk::msgarg_int("N", 5);
    exception tail("t.src", 2, CODE, exception::CALLER_SUPPRESS_STACK_TRACE);
    shared << tail;

    std::vector<std::thread> threads;
    std::atomic<int> decoded{0};
    for (int t = 0; t < THREADS; ++t)
        threads.emplace_back([&, t] {
            vrk_test::test_allocator alloc;
            const auto type = static_cast<unsigned short>(100 + t);
            for (int i = 0; i < ROUNDS; ++i) {
                ASSERT_TRUE(vrk::register_exception_type(type, &creator_a));
                vrk::osstream os(alloc);
                shared.serialize(os, true);
                vrk::string bytes = os.str();
                vrk::isstream is(bytes.data(), bytes.size(), alloc);
                auto e = exception::deserialize(is, alloc);
                if (e && e->get_next().data() != nullptr)
                    ++decoded;
                e->mark_processed();
                e.reset();
                EXPECT_EQ(vrk::exception_by_type(type), &creator_a);
                ASSERT_TRUE(vrk::unregister_exception_type(type, &creator_a));
            }
            EXPECT_EQ(alloc.balance(), 0);
        });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(decoded.load(), THREADS * ROUNDS);
}

} // namespace
