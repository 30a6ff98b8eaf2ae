#pragma once
// Finding the input FASTQ files, and the start-up checks of the input and save
// paths: a run either starts with paths it can use or stops before it writes.

#include <iosfwd>
#include <string>
#include <vector>

namespace Vorpa {

// Whether a file found in the input folder is read: *.fastq and
// *.fastq.<ext> (gzip) as FASTQ, *.bam, *.sam and *.cram through htslib.
// Names that writers give a file while it is being written are never input:
// *.tmp, *.part, and hidden names (starting with '.').
bool IsInputFileName(const std::string& name);

// The files found, in order, and one warning for each entry that was skipped
// because it could not be read or resolved, or looks like reads but is not
// named as input.
struct InputFiles {
    std::vector<std::string> files;
    std::vector<std::string> warnings;
};

// With an empty input_path, the non-empty lines of `names`. Otherwise the
// regular files (or links to them) that IsInputFileName takes in
// input_path, and with `recursive` in its subfolders too (depth first, links
// to folders not followed), in directory iteration order. A folder or entry
// that cannot be read or resolved is skipped with a warning and the search
// goes on; so is a regular file named like reads but not as input (*.fq,
// *.FASTQ, *.fq.gz and the like: most likely meant to be read). The save
// folder is never searched: a subfolder that is the save folder is passed
// over, and when input_path itself is the save folder its subfolders (which
// hold earlier runs' output) are not searched, with a warning when
// `recursive` asked for them.
InputFiles DiscoverInputFiles(const std::string& input_path, bool recursive, const std::string& save_path,
                              std::istream& names);

// "" when input_path can be searched (or is empty: the list comes from
// standard input), else a message saying what is wrong with it.
std::string InputPathProblem(const std::string& input_path);

// Creates the save folder when it is missing ("" stands for the current
// folder) and checks that files can be created in it by creating and removing
// a probe file. "" when the folder is usable, else a message saying why not.
std::string PrepareSaveFolder(const std::string& save_path);

}  // namespace Vorpa
