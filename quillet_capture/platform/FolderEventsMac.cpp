#include "quillet_capture/platform/FolderEvents.hpp"

#include "quillet_capture/config/Log.hpp"

#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>

#include <fcntl.h>
#include <sys/event.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <string>

namespace quillet {

namespace {

// NOTE_WRITE on a folder means an entry was added, removed or renamed in it; NOTE_EXTEND that
// the folder grew. Writes inside a file in the folder do not reach the folder's knote.
constexpr uint32_t kEvents = NOTE_WRITE | NOTE_EXTEND | NOTE_ATTRIB | NOTE_DELETE | NOTE_RENAME | NOTE_REVOKE;
// The folder itself was deleted, moved away or its volume unmounted: the descriptor now
// names something that is no longer at the path.
constexpr uint32_t kEnded = NOTE_DELETE | NOTE_RENAME | NOTE_REVOKE;

struct Watch {
    int fd = -1;
    dev_t device = 0;
    ino_t inode = 0;
};

std::string describe(const char* call, int error)
{
    return std::string(call) + ": " + std::strerror(error);
}

} // namespace

struct FolderEvents::State : std::enable_shared_from_this<State> {
    State(asio::any_io_executor executor, std::function<void()> changed, ArmFault fault)
        : queue(executor)
        , changed(std::move(changed))
        , fault(std::move(fault))
    {
        // macOS has no kqueue1: close-on-exec is set apart.
        int kq = ::kqueue();
        if (kq < 0) {
            giveUp(describe("kqueue", errno));
            return;
        }
        ::fcntl(kq, F_SETFD, FD_CLOEXEC);
        // The queue's own descriptor reads as readable while events are pending on it, so the
        // executor's reactor (itself a kqueue) can wait for it like for a socket.
        std::error_code error;
        queue.assign(kq, error);
        if (error) {
            ::close(kq);
            giveUp("kqueue: " + error.message());
        }
    }

    // Reads everything pending, calls `changed` when that asks for it, then waits for more.
    // Reading before waiting loses nothing: the executor's one thread also runs its reactor,
    // so readiness that comes after the last read is only seen once the wait is in place.
    void drain()
    {
        if (!alive || !queue.is_open()) {
            return;
        }
        bool anyChange = false;
        std::array<struct kevent, 64> events{};
        const int room = static_cast<int>(events.size());
        const timespec zero{0, 0}; // a poll: kevent returns at once
        for (;;) {
            int got = ::kevent(queue.native_handle(), nullptr, 0, events.data(), room, &zero);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                break;
            }
            for (int i = 0; i < got; ++i) {
                const struct kevent& event = events[static_cast<size_t>(i)];
                if (event.filter != EVFILT_VNODE) {
                    continue;
                }
                // EV_ERROR: the knote failed (its data holds the errno); the folder is armed
                // again at the next watch().
                if ((event.flags & EV_ERROR) || (event.fflags & kEnded)) {
                    forget(static_cast<int>(event.ident));
                }
                anyChange = true;
            }
            if (got < room) {
                break;
            }
        }
        if (anyChange) {
            changed();
        }
        wait();
    }

    void wait()
    {
        // `changed` may have destroyed the owner, which closed the queue.
        if (!alive || !queue.is_open()) {
            return;
        }
        auto ready = [self = shared_from_this()](const std::error_code& error) {
            if (!self->alive || error == asio::error::operation_aborted) {
                return;
            }
            if (error) {
                self->giveUp("kqueue: " + error.message());
                return;
            }
            self->drain();
        };
        queue.async_wait(asio::posix::stream_descriptor::wait_read, std::move(ready));
    }

    // Closing the descriptor also removes its knote, and with it any event still pending on it.
    void forget(int fd)
    {
        for (auto it = watches.begin(); it != watches.end(); ++it) {
            if (it->second.fd == fd) {
                drop(it);
                return;
            }
        }
    }

    void drop(std::map<std::filesystem::path, Watch>::iterator it)
    {
        ::close(it->second.fd);
        watches.erase(it);
    }

    void arm(const std::filesystem::path& folder)
    {
        int error = fault ? fault(folder) : 0;
        int fd = -1;
        if (error == 0) {
            // O_EVTONLY: a descriptor for events only, which does not keep the volume from
            // being unmounted (the watch then ends with NOTE_REVOKE).
            fd = ::open(folder.c_str(), O_EVTONLY | O_CLOEXEC | O_DIRECTORY);
            error = fd < 0 ? errno : 0;
        }
        if (error == EMFILE || error == ENFILE) {
            giveUp(describe("open", error));
            return;
        }
        // Anything else (no permission, the folder went away since the stat) concerns this
        // folder only; the poll reports what the user can do about it.
        if (error != 0) {
            return;
        }
        // The identity of what was opened, not of what the path names a moment later.
        struct stat info {};
        if (::fstat(fd, &info) != 0) {
            ::close(fd);
            return;
        }
        // With no room for events, a failed change comes back as -1 and errno rather than as an
        // EV_ERROR event; the zero time-out makes sure the call never waits.
        struct kevent change {};
        EV_SET(&change, static_cast<uintptr_t>(fd), EVFILT_VNODE, EV_ADD | EV_CLEAR, kEvents, 0, nullptr);
        const timespec zero{0, 0};
        if (::kevent(queue.native_handle(), &change, 1, nullptr, 0, &zero) != 0) {
            error = errno;
            ::close(fd);
            if (error == ENOMEM) {
                giveUp(describe("kevent", error));
            }
            return;
        }
        watches[folder] = Watch{fd, info.st_dev, info.st_ino};
    }

    void closeAll()
    {
        for (auto& entry : watches) {
            ::close(entry.second.fd);
        }
        watches.clear();
    }

    void giveUp(const std::string& reason)
    {
        if (!available) {
            return;
        }
        available = false;
        rlog("[quillet] capture: file-system events are not available (%@); new recordings are found by polling", reason);
        closeAll();
        std::error_code ignored;
        queue.close(ignored);
    }

    asio::posix::stream_descriptor queue;
    std::function<void()> changed;
    ArmFault fault;
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
    state_->closeAll();
    std::error_code ignored;
    state_->queue.close(ignored);
}

void FolderEvents::watch(const std::vector<std::filesystem::path>& folders)
{
    State& state = *state_;
    if (!state.available) {
        return;
    }
    const std::set<std::filesystem::path> wanted(folders.begin(), folders.end());
    for (auto it = state.watches.begin(); it != state.watches.end();) {
        auto next = std::next(it);
        if (!wanted.count(it->first)) {
            state.drop(it);
        }
        it = next;
    }
    for (const auto& folder : wanted) {
        struct stat info {};
        const bool present = ::stat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
        auto it = state.watches.find(folder);
        if (it != state.watches.end()) {
            if (present && it->second.device == info.st_dev && it->second.inode == info.st_ino) {
                continue;
            }
            state.drop(it);
        }
        if (present) {
            state.arm(folder);
            if (!state.available) {
                return;
            }
        }
    }
}

std::vector<std::filesystem::path> FolderEvents::watched() const
{
    std::vector<std::filesystem::path> folders;
    for (const auto& entry : state_->watches) {
        folders.push_back(entry.first);
    }
    return folders;
}

} // namespace quillet
