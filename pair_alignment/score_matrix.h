#pragma once
// The two pieces of scoring configuration every aligner takes: the mismatch
// matrix, read from a tab-separated table, and the gap-penalty vector.

#include <map>
#include <string>
#include <vector>

#include "pair_alignment/score_limits.h"

namespace PairAlignment {

// Column name -> the column's fields, in file order.
using Table = std::map<std::string, std::vector<std::string>>;

// Reads a tab-separated table whose first non-comment line is the header.
// Lines starting with "#" and empty lines are skipped; a trailing carriage
// return is dropped. Every row must have as many fields as the header.
Table ReadTable(const std::string& filename);

// 4 x 4 row-major matrix from the table's columns "A", "C", "G", "T" laid side
// by side: element (reference code a, query code b) is at 4 * a + b. Throws
// std::runtime_error naming the file for a missing file or column, a value
// that is not an integer, or one outside +-kMaxScoreMagnitude.
std::vector<int> LoadMismatchMatrix(const std::string& filename);

// The aligners' six internal costs from the 6 or 8 positive penalties, negated:
// start1, end1, open1, start2, end2, open2. The extend penalties of an 8-vector
// (indices 3 and 7) are ignored: gap costs are linear.
std::vector<int> ConvertGapVector(const std::vector<int>& gaps);

}  // namespace PairAlignment
