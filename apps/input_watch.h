#pragma once
// Input files that appear while a run goes on: the input folder is searched
// again and again (the discovery rules of input_files.h), and a file is
// handed out once it is complete: when its size and modification time have
// not changed for the settle time, or at once when it was renamed into the
// folder (written elsewhere, then moved in). inotify wakes the search early
// where the system offers it; without it (or on file systems that do not
// report changes) the search simply runs every poll interval.
//
// Memory grows with the number of files seen (a path and a few numbers
// each), never with their contents or the time watched.

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Vorpa {

class InputWatcher {
public:
    InputWatcher(std::string input_path, bool recursive, std::string save_path, double settle_seconds);
    ~InputWatcher();
    InputWatcher(const InputWatcher&) = delete;
    InputWatcher& operator=(const InputWatcher&) = delete;

    // Waits up to `wait` (less when inotify reports a change), searches the
    // folder and returns the files that are complete now and were not
    // returned before, in discovery order.
    std::vector<std::string> Poll(std::chrono::milliseconds wait);
    // Every input file not returned before, complete or not: for the end of
    // a watch, when the writer has said it is done.
    std::vector<std::string> Remaining();
    // Messages since the last call: unreadable entries, files that changed
    // after they were handed out (their new reads are not read).
    std::vector<std::string> TakeWarnings();
    // Whether changes are reported by inotify (else only the periodic search).
    bool Notified() const { return inotify_ >= 0; }

private:
    struct Seen {
        uint64_t size = 0;
        int64_t mtime_ns = 0;
        std::chrono::steady_clock::time_point since;  // first seen with this size and time
        bool handed_out = false;
        bool warned = false;
    };

    void Wait(std::chrono::milliseconds wait);
    void WatchFolder(const std::string& folder);
    std::vector<std::string> Search(bool take_all);

    std::string input_path_;
    bool recursive_;
    std::string save_path_;
    std::chrono::nanoseconds settle_;
    int inotify_ = -1;
    std::map<int, std::string> watched_;  // inotify watch -> folder
    std::set<std::string> watched_folders_;
    std::set<std::string> renamed_in_;  // paths moved into a watched folder, not yet handed out
    std::map<std::string, Seen> seen_;
    std::set<std::string> warned_entries_;  // search warnings already given
    std::vector<std::string> warnings_;
};

}  // namespace Vorpa
