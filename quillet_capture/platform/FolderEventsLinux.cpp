#include "quillet_capture/platform/FolderEvents.hpp"
#include "quillet_capture/platform/FolderEventsWatchSet.hpp"
#include "quillet_capture/platform/FolderEventsLinux.hpp"

#include "quillet_capture/config/Log.hpp"

#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <string_view>

namespace quillet {

namespace inotify {

Batch decode(std::span<const std::byte> bytes)
{
    constexpr uint32_t kEnded = IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT;
    Batch batch;
    size_t offset = 0;
    while (bytes.size() - offset >= sizeof(inotify_event)) {
        inotify_event record;
        std::memcpy(&record, bytes.data() + offset, sizeof record);
        const size_t size = sizeof record + record.len;
        if (bytes.size() - offset < size) {
            break;
        }
        offset += size;
        if (record.mask & IN_Q_OVERFLOW) {
            batch.changed = true;
            continue;
        }
        // A reader of an SQLite database in WAL mode opens its "-shm" index for writing and
        // closes it after reading: the Voice Memos library read by this program would wake
        // the poll that read it. Closing a file changes no entry of the folder.
        const std::string_view name(reinterpret_cast<const char*>(bytes.data() + offset - record.len),
                                    ::strnlen(reinterpret_cast<const char*>(bytes.data() + offset - record.len),
                                              record.len));
        if (record.mask == IN_CLOSE_WRITE && name.ends_with("-shm")) {
            continue;
        }
        if (record.mask & ~IN_IGNORED) {
            batch.changed = true;
        }
        if ((record.mask & kEnded) &&
            std::find(batch.gone.begin(), batch.gone.end(), record.wd) == batch.gone.end()) {
            batch.gone.push_back(record.wd);
        }
    }
    return batch;
}

} // namespace inotify

namespace {

// IN_MODIFY is left out on purpose: it comes at every write of a recording still being
// written and would wake the poll without end; IN_CLOSE_WRITE says when the writer is done.
constexpr uint32_t kEvents = IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CLOSE_WRITE | IN_ATTRIB |
                             IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

struct Watch {
    int wd = -1;
    dev_t device = 0;
    ino_t inode = 0;
};

std::string describe(const char* call, int error)
{
    switch (error) {
    case ENOSPC:
        return std::string(call) + ": the user's inotify watches are used up (fs.inotify.max_user_watches)";
    case EMFILE:
        return std::string(call) + ": too many inotify instances or open files (fs.inotify.max_user_instances)";
    default:
        return std::string(call) + ": " + std::strerror(error);
    }
}

} // namespace

struct FolderEvents::State : std::enable_shared_from_this<State> {
    State(asio::any_io_executor executor, std::function<void()> changed, ArmFault fault)
        : descriptor(executor)
        , changed(std::move(changed))
        , fault(std::move(fault))
        , buffer(64 * 1024)
    {
        int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (fd < 0) {
            giveUp(describe("inotify_init1", errno));
            return;
        }
        std::error_code error;
        descriptor.assign(fd, error);
        if (error) {
            ::close(fd);
            giveUp("inotify: " + error.message());
        }
    }

    // Reads everything pending, calls `changed` when that asks for it, then waits for more.
    // Reading before waiting loses nothing: the executor's one thread also runs its reactor,
    // so readiness that comes after the last read is only seen once the wait is in place.
    void drain()
    {
        if (!alive || !descriptor.is_open()) {
            return;
        }
        bool anyChange = false;
        for (;;) {
            ssize_t got = ::read(descriptor.native_handle(), buffer.data(), buffer.size());
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                break; // EAGAIN: nothing left until the next wake-up
            }
            auto batch = inotify::decode(std::span(buffer.data(), static_cast<size_t>(got)));
            anyChange = anyChange || batch.changed;
            for (int wd : batch.gone) {
                forget(wd);
            }
        }
        if (anyChange) {
            changed();
        }
        wait();
    }

    void wait()
    {
        // `changed` may have destroyed the owner, which closed the descriptor.
        if (!alive || !descriptor.is_open()) {
            return;
        }
        auto ready = [self = shared_from_this()](const std::error_code& error) {
            if (!self->alive || error == asio::error::operation_aborted) {
                return;
            }
            if (error) {
                self->giveUp("inotify: " + error.message());
                return;
            }
            self->drain();
        };
        descriptor.async_wait(asio::posix::stream_descriptor::wait_read, std::move(ready));
    }

    // The kernel ends a watch by itself only when its folder is deleted or unmounted; a folder
    // moved away keeps its watch, which would go on reporting a folder that is no longer ours.
    void forget(int wd)
    {
        bool known = false;
        for (auto it = watches.begin(); it != watches.end();) {
            if (it->second.wd == wd) {
                known = true;
                it = watches.erase(it);
            } else {
                ++it;
            }
        }
        if (known) {
            ::inotify_rm_watch(descriptor.native_handle(), wd);
        }
    }

    void drop(std::map<std::filesystem::path, Watch>::iterator it)
    {
        const int wd = it->second.wd;
        watches.erase(it);
        // Two listed paths may name one folder (a link): the kernel gave both the same watch.
        bool shared =
            std::any_of(watches.begin(), watches.end(), [&](const auto& entry) { return entry.second.wd == wd; });
        if (!shared) {
            ::inotify_rm_watch(descriptor.native_handle(), wd);
        }
    }

    void arm(const std::filesystem::path& folder, const struct stat& info)
    {
        int error = fault ? fault(folder) : 0;
        int wd = -1;
        if (error == 0) {
            wd = ::inotify_add_watch(descriptor.native_handle(), folder.c_str(), kEvents);
            error = wd < 0 ? errno : 0;
        }
        if (error == ENOSPC || error == EMFILE || error == ENFILE) {
            giveUp(describe("inotify_add_watch", error));
            return;
        }
        // Anything else (no permission, the folder went away since the stat) concerns this
        // folder only; the poll reports what the user can do about it.
        if (error == 0) {
            watches[folder] = Watch{wd, info.st_dev, info.st_ino};
        }
    }

    void giveUp(const std::string& reason)
    {
        if (!available) {
            return;
        }
        available = false;
        rlog("[quillet] capture: file-system events are not available (%@); new recordings are found by polling", reason);
        watches.clear();
        std::error_code ignored;
        descriptor.close(ignored); // ends every watch with it
    }

    asio::posix::stream_descriptor descriptor;
    std::function<void()> changed;
    ArmFault fault;
    std::vector<std::byte> buffer;
    std::map<std::filesystem::path, Watch> watches;
    bool available = true;
    std::atomic<bool> alive{true};
};

FolderEvents::FolderEvents(asio::any_io_executor executor, std::function<void()> changed, ArmFault fault)
    : state_(std::make_shared<State>(executor, std::move(changed), std::move(fault)))
{
    // The first read and wait happen on the executor: asio objects are not safe to touch from
    // two threads, and this constructor may run on any.
    asio::post(executor, [state = state_] { state->drain(); });
}

FolderEvents::~FolderEvents()
{
    state_->alive = false;
    std::error_code ignored;
    state_->descriptor.close(ignored);
}

void FolderEvents::watch(const std::vector<std::filesystem::path>& folders)
{
    FolderEventsWatchSet::reconcile(*state_, folders);
}

std::vector<std::filesystem::path> FolderEvents::watched() const
{
    return FolderEventsWatchSet::watched(*state_);
}

} // namespace quillet
