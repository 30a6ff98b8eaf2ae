#pragma once
// BGZF, the block-gzip container of BAM: each block is a gzip member holding
// at most 64 KiB, and a file ends with a fixed empty block. Compressing a
// chunk of bytes into whole blocks in memory lets any thread prepare output
// that a writer then only appends.

#include <string>
#include <string_view>

namespace Common {

// The end-of-file block every BGZF file ends with (28 bytes).
std::string_view BgzfEofBlock();

// Appends data to out as whole BGZF blocks (none for empty data), made with
// ISA-L; level is its level, 0 (fastest) to 3. Data that does not compress
// is stored. Throws std::runtime_error when compression fails.
void AppendBgzfBlocks(std::string_view data, std::string& out, int level);

// The level BAM output is written with: fast, since output runs beside the
// reads' scoring on the same cores, at files a little larger than the slow
// levels give.
inline constexpr int kBamCompressionLevel = 1;

}  // namespace Common
