// One upload of a file by VeldaneClient, as the agent makes it; run by bench_upload as a child
// process so that its peak memory is the client's alone. Usage: bench_upload_client URL FILE.
// The token comes from the token store of the environment it is given.

#include "quillet_capture/runtime/Tasks.hpp"
#include "quillet_capture/service/VeldaneClient.hpp"

#include <asio/co_spawn.hpp>
#include <asio/use_future.hpp>

#include <cstdio>

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench_upload_client URL FILE\n");
        return 2;
    }
    quillet::VeldaneClient client(argv[1]);
    try {
        auto result = asio::co_spawn(quillet::runtime::utilityExecutor(), client.uploadAudio(argv[2], "benchmark"),
                                     asio::use_future)
                          .get();
        std::printf("%s\n", result.status.c_str());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "upload failed: %s\n", error.what());
        std::fflush(nullptr);
        std::_Exit(1);
    }
    std::fflush(nullptr);
    // The pools' threads are never joined; leave without running static destructors.
    std::_Exit(0);
}
