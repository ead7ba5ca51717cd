#include "quillet_capture/platform/FolderEvents.hpp"
#include "quillet_capture/platform/FolderEventsWatchSet.hpp"

#include "quillet_capture/config/Log.hpp"

#include <asio/post.hpp>

#include <dispatch/dispatch.h>
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
#include <string>
#include <utility>
#include <vector>

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
    /// What the dispatch source's handlers see. They run on a dispatch queue, never on the
    /// executor: they read what the kqueue holds and hand it to the executor.
    struct Bridge {
        int kq = -1;
        asio::any_io_executor executor;
        std::weak_ptr<State> state;
        dispatch_semaphore_t cancelled = nullptr;
    };

    State(asio::any_io_executor executor, std::function<void()> changed, ArmFault fault)
        : executor(executor)
        , changed(std::move(changed))
        , fault(std::move(fault))
    {
        // macOS has no kqueue1: close-on-exec is set apart.
        kq = ::kqueue();
        if (kq < 0) {
            giveUp(describe("kqueue", errno));
            return;
        }
        ::fcntl(kq, F_SETFD, FD_CLOEXEC);
    }

    // The kqueue's own descriptor reads as readable while events are pending on it. Asio
    // cannot wait for it (it makes every descriptor it waits for non-blocking, and a kqueue
    // takes no ioctl), so a dispatch source does: its handler reads the events on the
    // source's queue and posts them to the executor. Called once, on the executor.
    void listen()
    {
        if (!available || source != nullptr) {
            return;
        }
        queue = dispatch_queue_create("quillet.capture.events", DISPATCH_QUEUE_SERIAL);
        source = dispatch_source_create(DISPATCH_SOURCE_TYPE_READ, static_cast<uintptr_t>(kq), 0, queue);
        if (source == nullptr) {
            giveUp("dispatch_source_create failed");
            return;
        }
        cancelled = dispatch_semaphore_create(0);
        auto* bridge = new Bridge{kq, executor, weak_from_this(), cancelled};
        dispatch_set_context(source, bridge);
        dispatch_source_set_event_handler_f(source, &State::readable);
        dispatch_source_set_cancel_handler_f(source, &State::ended);
        dispatch_resume(source);
    }

    // On the source's queue: reads everything pending, so that the kqueue stops reading as
    // readable, and hands it to the executor.
    static void readable(void* context)
    {
        auto* bridge = static_cast<Bridge*>(context);
        std::vector<std::pair<int, bool>> events;  // descriptor, watch ended
        std::array<struct kevent, 64> batch{};
        const int room = static_cast<int>(batch.size());
        const timespec zero{0, 0};  // a poll: kevent returns at once
        for (;;) {
            int got = ::kevent(bridge->kq, nullptr, 0, batch.data(), room, &zero);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                break;
            }
            for (int i = 0; i < got; ++i) {
                const struct kevent& event = batch[static_cast<size_t>(i)];
                if (event.filter == EVFILT_VNODE) {
                    // EV_ERROR: the knote failed; the folder is armed again at the next watch().
                    events.emplace_back(static_cast<int>(event.ident),
                                        (event.flags & EV_ERROR) != 0 || (event.fflags & kEnded) != 0);
                }
            }
            if (got < room) {
                break;
            }
        }
        if (!events.empty()) {
            asio::post(bridge->executor, [state = bridge->state, events = std::move(events)] {
                if (auto self = state.lock()) {
                    self->handle(events);
                }
            });
        }
    }

    // On the source's queue, once the source is cancelled and no handler runs any more: the
    // kqueue can be closed now, and the owner waiting for this may go on.
    static void ended(void* context)
    {
        auto* bridge = static_cast<Bridge*>(context);
        ::close(bridge->kq);
        dispatch_semaphore_signal(bridge->cancelled);
        delete bridge;
    }

    // On the executor: what the kqueue reported.
    void handle(const std::vector<std::pair<int, bool>>& events)
    {
        if (!alive || !available) {
            return;
        }
        for (const auto& [fd, ended] : events) {
            if (ended) {
                forget(fd);
            }
        }
        changed();
    }

    // Closing the descriptor also removes its knote, and with it any event still pending on it.
    // An event read before the close may still name the descriptor; a folder armed meanwhile
    // under the same number then loses its watch and is armed again at the next watch().
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

    // `info` is what the path named when it was looked at; the watch keeps what was opened.
    void arm(const std::filesystem::path& folder, const struct stat& /*info*/)
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
        if (::kevent(kq, &change, 1, nullptr, 0, &zero) != 0) {
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

    // Cancels the source and waits until its handlers are done (its cancel handler closes the
    // kqueue), so that nothing is posted to the executor afterwards. Without a source, closes
    // the kqueue itself.
    void stop()
    {
        if (source != nullptr) {
            dispatch_source_cancel(source);
            dispatch_semaphore_wait(cancelled, DISPATCH_TIME_FOREVER);
            dispatch_release(source);
            dispatch_release(cancelled);
            dispatch_release(queue);
            source = nullptr;
        } else if (kq >= 0) {
            ::close(kq);
        }
        kq = -1;
    }

    void giveUp(const std::string& reason)
    {
        if (!available) {
            return;
        }
        available = false;
        rlog("[quillet] capture: file-system events are not available (%@); new recordings are found by polling", reason);
        closeAll();
        stop();
    }

    asio::any_io_executor executor;
    std::function<void()> changed;
    ArmFault fault;
    int kq = -1;
    dispatch_queue_t queue = nullptr;
    dispatch_source_t source = nullptr;
    dispatch_semaphore_t cancelled = nullptr;
    std::map<std::filesystem::path, Watch> watches;
    bool available = true;
    std::atomic<bool> alive{true};
};

FolderEvents::FolderEvents(asio::any_io_executor executor, std::function<void()> changed, ArmFault fault)
    : state_(std::make_shared<State>(executor, std::move(changed), std::move(fault)))
{
    state_->listen();
}

FolderEvents::~FolderEvents()
{
    state_->alive = false;
    state_->closeAll();
    state_->stop();
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
