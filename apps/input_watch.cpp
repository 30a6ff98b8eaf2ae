#include "apps/input_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <sstream>
#include <thread>

#include "apps/input_files.h"

namespace Vorpa {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

// What inotify is asked to report: anything that can make a file appear,
// grow or become complete. The events only wake the search; what counts is
// what the search then finds, except for a rename, which makes the file
// complete at once.
constexpr uint32_t kEvents = IN_CREATE | IN_MOVED_TO | IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB;

int64_t ModificationNs(const struct stat& status) {
    return static_cast<int64_t>(status.st_mtim.tv_sec) * 1000000000 + status.st_mtim.tv_nsec;
}

int64_t WallClockNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

InputWatcher::InputWatcher(std::string input_path, bool recursive, std::string save_path, double settle_seconds)
    : input_path_(std::move(input_path)),
      recursive_(recursive),
      save_path_(std::move(save_path)),
      settle_(std::chrono::nanoseconds(static_cast<int64_t>(settle_seconds * 1e9))) {
    inotify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotify_ >= 0) WatchFolder(input_path_);
}

InputWatcher::~InputWatcher() {
    if (inotify_ >= 0) ::close(inotify_);
}

// A folder that cannot be watched (the system's watch limit) is still
// searched; only the early wake-up is lost.
void InputWatcher::WatchFolder(const std::string& folder) {
    if (inotify_ < 0 || !watched_folders_.insert(folder).second) return;
    const int watch = ::inotify_add_watch(inotify_, folder.c_str(), kEvents);
    if (watch >= 0) watched_[watch] = folder;
}

// Sleeps until an inotify event or the end of wait, then reads every pending
// event, noting the files that were renamed into a watched folder.
void InputWatcher::Wait(std::chrono::milliseconds wait) {
    if (inotify_ < 0) {
        std::this_thread::sleep_for(wait);
        return;
    }
    pollfd descriptor{inotify_, POLLIN, 0};
    ::poll(&descriptor, 1, static_cast<int>(wait.count()));
    alignas(inotify_event) char buffer[16384];
    for (;;) {
        const ssize_t length = ::read(inotify_, buffer, sizeof buffer);
        if (length <= 0) return;
        for (ssize_t at = 0; at < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            const auto folder = watched_.find(event->wd);
            if (folder == watched_.end() || event->len == 0) continue;
            if (event->mask & IN_MOVED_TO) renamed_in_.insert((fs::path(folder->second) / event->name).string());
        }
    }
}

std::vector<std::string> InputWatcher::Poll(std::chrono::milliseconds wait) {
    Wait(wait);
    return Search(false);
}

std::vector<std::string> InputWatcher::Remaining() {
    return Search(true);
}

std::vector<std::string> InputWatcher::TakeWarnings() {
    std::vector<std::string> warnings;
    warnings.swap(warnings_);
    return warnings;
}

std::vector<std::string> InputWatcher::Search(bool take_all) {
    std::istringstream no_names;
    InputFiles found = DiscoverInputFiles(input_path_, recursive_, save_path_, no_names);
    for (auto& warning : found.warnings) {
        // The same unreadable entry is met on every search: said once.
        if (warned_entries_.insert(warning).second) warnings_.push_back(std::move(warning));
    }
    const auto now = Clock::now();
    const int64_t wall_now = WallClockNs();
    std::vector<std::string> complete;
    for (const auto& path : found.files) {
        if (recursive_) WatchFolder(fs::path(path).parent_path().string());
        struct stat status {};
        if (::stat(path.c_str(), &status) != 0) continue;  // gone again: a later search decides
        const uint64_t size = static_cast<uint64_t>(status.st_size);
        const int64_t mtime = ModificationNs(status);
        auto [entry, added] = seen_.try_emplace(path);
        Seen& seen = entry->second;
        const bool changed = added || seen.size != size || seen.mtime_ns != mtime;
        if (seen.handed_out) {
            if (changed && !seen.warned) {
                seen.warned = true;
                warnings_.push_back("The input file '" + path +
                                    "' changed after it was read; what was added to it is not read.");
            }
            continue;
        }
        if (changed) {
            seen.size = size;
            seen.mtime_ns = mtime;
            seen.since = now;
        }
        // Unchanged for the settle time, by our own watch or by the file's
        // modification time, or moved in whole.
        const bool settled = now - seen.since >= settle_ || wall_now - mtime >= settle_.count();
        const bool renamed = renamed_in_.erase(path) > 0;
        if (!(take_all || settled || renamed)) continue;
        seen.handed_out = true;
        complete.push_back(path);
    }
    // A rename of anything the search did not take (not an input name) is forgotten.
    renamed_in_.clear();
    return complete;
}

}  // namespace Vorpa
