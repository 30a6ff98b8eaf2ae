#pragma once
// The header of the BAM files the barcoder writes: @HD, the read groups of
// the input files (each distinct line once), and a @PG line naming this
// program and its command line.

#include <string>
#include <string_view>
#include <vector>

namespace Common {

// Adds the @RG lines of one input (source names it in messages) to merged: a
// line already there is not added again; a line whose ID is already there
// with other fields is left out, and a warning saying so is returned.
std::vector<std::string> MergeReadGroups(std::vector<std::string>& merged, const std::vector<std::string>& lines,
                                         const std::string& source);

// The header text, lines ended by '\n'. Tabs and line breaks in the command
// line become spaces (they would break the line's fields).
std::string BamHeaderText(const std::vector<std::string>& read_groups, std::string_view version,
                          std::string_view command_line);

// The header as it starts a BAM file: magic, text and an empty reference
// list, in BGZF blocks of its own.
std::string EncodeBamHeader(std::string_view text);

// This process's arguments joined by spaces, those with spaces or quotes
// single-quoted as a shell would need them (from /proc/self/cmdline).
std::string ProcessCommandLine();

}  // namespace Common
