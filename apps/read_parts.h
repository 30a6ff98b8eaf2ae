#pragma once
// A part of a read cut into its molecules (--internal_barcodes split), made
// into a read of its own: its bases and qualities, the id "<read id>_<k>", the
// read's comment (with its run id); from BAM input the read's tags, with the base-modification tags rewritten
// for the part's bases and the other per-base tags dropped.

#include <string>

#include "common/fastq_record.h"

namespace Vorpa {

// The title key naming the read a part was cut from, and its BAM tag
// (DecideOutput adds them).
inline constexpr char kParentTitleKey[] = "parent_read_id";
inline constexpr char kParentTag[] = "pi";

// Part k (from 1) of read: its bases [begin, end). Logs a warning when the
// read's modification tags cannot be carried over (they are then left out).
Common::FastQRecord MakeReadPart(const Common::FastQRecord& read, int begin, int end, int k);

}  // namespace Vorpa
