#pragma once
// Text progress bar of 51 marks under a 0%..100% scale.

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

}  // namespace Vorpa
