#pragma once
// One batch of reads on its way through a run: what the reading thread cut
// from the input, and what a worker made of it for the writer.

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "apps/read_processor.h"
#include "apps/run_report.h"
#include "common/fastq_record.h"
#include "common/fastq_writer.h"

namespace Vorpa {

struct ReadBatch {
    uint64_t sequence = 0;  // set by the pipeline: input order

    // From the reading thread.
    std::vector<Common::FastQRecord> reads;  // parsed, with their tags when from BAM
    uint64_t bases = 0;
    // Files whose last read is in this batch or an earlier one; the writer
    // reports them done after writing the batch.
    std::vector<InputFileEnd> file_ends;
    // With --resume: the input file being read when the batch was cut (path
    // canonical), with its records so far; empty path between files.
    InputFileEnd reading;

    // From the worker, in read order.
    std::string summary;                     // summary rows
    std::vector<Common::FastqChunk> chunks;  // one per output series, by first appearance
    // Reads cut into parts: the parts, which the chunks may point into like
    // the reads (moving a vector keeps its elements where they are).
    std::vector<std::vector<Common::FastQRecord>> parts;
    RunTally tally;
    // With a sample sheet: the sample of each written read by its number in
    // the sheet, the sheet's sample count for "unclassified". The writer
    // counts them by number: with thousands of samples a map by name per
    // batch costs more than the reads' lookups in it.
    std::vector<uint32_t> read_samples;

    // The chunk of (folder, run id), added at the end when new.
    Common::FastqChunk& ChunkFor(const std::string& folder, std::string_view run_id);

private:
    std::unordered_map<std::string, size_t> chunk_index_;
    std::string key_;  // reused for every lookup: no allocation per read
};

}  // namespace Vorpa
