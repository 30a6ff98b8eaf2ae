#pragma once
// Text progress bar of 51 marks under a 0%..100% scale.

#include <cstdint>
#include <iosfwd>

namespace Vorpa {

class ProgressDisplay {
public:
    // Prints the scale and the empty bar at once. An expected count of 0 is
    // treated as 1.
    ProgressDisplay(unsigned long expected_count, std::ostream& out);

    // Advances the count and prints the marks now due; a newline follows the
    // last mark when the count reaches the expected count.
    void Advance(unsigned long increment = 1);
    unsigned long Count() const { return count_; }

private:
    std::ostream& out_;
    unsigned long expected_count_;
    unsigned long count_ = 0;
    unsigned long next_tic_count_ = 0;
    unsigned tics_ = 0;
};

// Progress of a run whose input is not known in advance (watching a folder):
// one line, rewritten in place, with the files and reads done so far.
class RunningCount {
public:
    explicit RunningCount(std::ostream& out) : out_(out) {}
    void FileDone(uint64_t reads_written);
    // Ends the line (once something was printed).
    void Finish();

private:
    std::ostream& out_;
    uint64_t files_ = 0;
};

}  // namespace Vorpa
