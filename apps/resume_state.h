#pragma once
// What a run started with --resume has written so far, kept in its save
// folder so that a later run with --resume carries on where it stopped, even
// after the process was killed. The file is replaced whole (written beside
// and renamed) after the batch that finishes an input file and at least
// every second otherwise, always between batches: it then describes a prefix
// of what is in the output files, which may hold more (batches written after
// it). Resuming cuts every output file back to the size recorded here and
// reads past the records of the input files that were already done, so each
// read ends up written exactly once.

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "apps/run_report.h"
#include "common/fastq_writer.h"

namespace Vorpa {

inline constexpr const char* kResumeStateFileName = "barcoding_resume_state.txt";

// One input file as far as the run got with it.
struct InputProgress {
    uint64_t size = 0;  // when reading began
    int64_t mtime_ns = 0;
    uint64_t records = 0;   // leading records whose reads are written (or dropped)
    bool finished = false;  // read to its end (or as far as it could be read)
};

struct ResumeState {
    // Option names and values of the run; the ones that shape the output
    // must be the same for a run to carry on (OptionsThatDiffer).
    std::vector<std::pair<std::string, std::string>> options;
    uint64_t summary_size = 0;
    double wall_time_s = 0;  // of every run so far
    RunTally tally;
    std::vector<Common::SeriesState> outputs;
    std::map<std::string, InputProgress> inputs;  // by canonical path
};

// The file's text: one record per line, fields tab separated; text fields
// with '%', tabs, line breaks and other control bytes percent-encoded.
std::string FormatResumeState(const ResumeState& state);
// Throws std::runtime_error naming `name` and the line for a malformed file.
ResumeState ParseResumeState(const std::string& text, const std::string& name);

// "name (earlier: a, now: b)" for each option that shapes the output and is
// not the same in both lists. Options that may change between runs (paths,
// threads, logging, the device, watching) are not compared.
std::vector<std::string> OptionsThatDiffer(const std::vector<std::pair<std::string, std::string>>& earlier,
                                           const std::vector<std::pair<std::string, std::string>>& now);

}  // namespace Vorpa
