// A standard header first, then Asio: the order most sources have. See AsioConfigTest.cpp.
#include <cstdlib>

#include <asio/awaitable.hpp>

namespace quillet::runtime {

bool asioAlignedAllocAfterStandardHeader()
{
#if defined(ASIO_HAS_STD_ALIGNED_ALLOC)
    return true;
#else
    return false;
#endif
}

} // namespace quillet::runtime
