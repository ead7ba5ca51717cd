// Asio first, before any standard header: this file sees Asio's configuration as the sources
// do whose first include leads straight to Asio (runtime/Clock.hpp, for one).
#include <asio/awaitable.hpp>

#include <gtest/gtest.h>

namespace quillet::runtime {

/// Whether Asio allocates coroutine frames with std::aligned_alloc in a file that includes a
/// standard header before Asio (AsioConfigProbe.cpp).
bool asioAlignedAllocAfterStandardHeader();

namespace {

#if defined(ASIO_HAS_STD_ALIGNED_ALLOC)
constexpr bool kAlignedAllocAsioFirst = true;
#else
constexpr bool kAlignedAllocAsioFirst = false;
#endif

// Asio recycles coroutine frames across files through a per-thread cache: a frame allocated
// where Asio uses std::aligned_alloc was freed with operator delete where it does not
// (valgrind: "Mismatched free() / delete"). The choice must not depend on include order.
TEST(AsioConfig, FramesAreAllocatedAndFreedAlikeWhateverTheIncludeOrder)
{
    EXPECT_EQ(kAlignedAllocAsioFirst, asioAlignedAllocAfterStandardHeader());
}

} // namespace
} // namespace quillet::runtime
