#include "apps/progress_display.h"

#include <ostream>

namespace Vorpa {

namespace {
constexpr unsigned kTics = 50;  // intervals; one more mark closes the bar at 100%
}

ProgressDisplay::ProgressDisplay(unsigned long expected_count, std::ostream& out)
    : out_(out), expected_count_(expected_count == 0 ? 1 : expected_count) {
    out_ << "\n"
         << "0%   10   20   30   40   50   60   70   80   90   100%\n"
         << "|----|----|----|----|----|----|----|----|----|----|" << std::endl;
}

// The first advance always prints a mark (the threshold starts at 0), so the
// bar shows life even when the first file is a small fraction of the run.
void ProgressDisplay::Advance(unsigned long increment) {
    count_ += increment;
    if (count_ < next_tic_count_) return;
    auto tics_needed =
        static_cast<unsigned>(static_cast<double>(count_) / static_cast<double>(expected_count_) * kTics);
    do {
        out_ << '*' << std::flush;
    } while (++tics_ < tics_needed);
    next_tic_count_ =
        static_cast<unsigned long>(static_cast<double>(tics_) / kTics * static_cast<double>(expected_count_));
    if (count_ == expected_count_) {
        if (tics_ < kTics + 1) out_ << '*';
        out_ << std::endl;
    }
}

void RunningCount::FileDone(uint64_t reads_written) {
    ++files_;
    out_ << "\rFiles done: " << files_ << ", reads written: " << reads_written << std::flush;
}

void RunningCount::Finish() {
    if (files_ > 0) out_ << std::endl;
    files_ = 0;
}

}  // namespace Vorpa
