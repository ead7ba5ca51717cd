#include "quillet_capture/platform/DesktopNotifier.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/runtime/SerialQueue.hpp"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>

namespace quillet {

namespace {

// osascript hands the notification to the system and ends within a second; one that has not
// ended by then (a first run waiting on a permission prompt nobody answers) is stopped, so
// that the notifications after it are not held up for good.
constexpr auto kLongest = std::chrono::seconds(10);

class OsascriptNotifier final : public DesktopNotifier {
public:
    void post(const std::string& title, const std::string& body) override
    {
        queue().async([this, command = osascriptCommand(title, body)] { run(command); });
    }

private:
    runtime::SerialQueue& queue()
    {
        // Made on the first notification: an agent that posts none has no thread for them.
        static auto* made = new runtime::SerialQueue("quillet.notify");
        return *made;
    }

    void tellOnce(const std::string& why)
    {
        if (!told_.exchange(true)) {
            rlog("[quillet] notifications: no desktop notification shown (%@); they are only logged", why);
        }
    }

    void run(const Process::Command& command)
    {
        Process::Child child;
        try {
            child = Process::spawn(command.executable, command.arguments);
        } catch (const Process::SpawnError& error) {
            tellOnce(error.what());
            return;
        }
        std::string output;
        bool ended = false;
        const auto deadline = std::chrono::steady_clock::now() + kLongest;
        while (!ended) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                break;
            }
            pollfd readable{child.output, POLLIN, 0};
            int ready = ::poll(&readable, 1, static_cast<int>(left.count()));
            if (ready < 0 && errno == EINTR) {
                continue;
            }
            if (ready <= 0) {
                break;
            }
            char buffer[1024];
            ssize_t count = ::read(child.output, buffer, sizeof buffer);
            if (count > 0) {
                // What it says is only for the one log line; a little of it is enough.
                if (output.size() < 4096) {
                    output.append(buffer, static_cast<size_t>(count));
                }
            } else if (count == 0 || errno != EINTR) {
                ended = true;  // the child closed its output: it has ended or is ending
            }
        }
        ::close(child.output);
        if (!ended) {
            ::kill(child.pid, SIGKILL);
        }
        int status = Process::terminationStatus(Process::waitFor(child.pid));
        if (!ended) {
            tellOnce("osascript did not end within " + std::to_string(kLongest.count()) + " seconds");
        } else if (status != 0) {
            auto text = Process::outputText(output, Process::InvalidUtf8::repair);
            while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
                text.pop_back();
            }
            tellOnce("osascript exited " + std::to_string(status) + (text.empty() ? "" : ": " + text));
        }
    }

    std::atomic<bool> told_{false};
};

} // namespace

DesktopNotifier& DesktopNotifier::system()
{
    static auto* notifier = new OsascriptNotifier;
    return *notifier;
}

} // namespace quillet
