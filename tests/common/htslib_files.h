#pragma once
// htslib as the reference for this program's own BAM reading and writing.

#include <htslib/sam.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace HtslibFiles {

struct Record {
    std::string name, bases, qualities, aux;  // qualities Phred+33, aux raw bytes
    bool operator==(const Record&) const = default;
};

struct File {
    std::string header;
    std::vector<Record> records;
};

// Every record of the file at path; with copy_to, also written there (as SAM,
// or BAM by the extension) through htslib's writer. Throws when htslib finds
// the file damaged or cannot write.
inline File ReadAlignments(const std::string& path, const std::string& copy_to = "") {
    samFile* in = sam_open(path.c_str(), "r");
    samFile* out = copy_to.empty() ? nullptr : sam_open(copy_to.c_str(), copy_to.ends_with(".bam") ? "wb" : "w");
    sam_hdr_t* header = in != nullptr ? sam_hdr_read(in) : nullptr;
    if (header == nullptr || (!copy_to.empty() && (out == nullptr || sam_hdr_write(out, header) != 0)))
        throw std::runtime_error("cannot copy " + path);
    File file{sam_hdr_str(header), {}};
    bam1_t* b = bam_init1();
    int status;
    while ((status = sam_read1(in, header, b)) >= 0) {
        if (out != nullptr && sam_write1(out, header, b) < 0) throw std::runtime_error("cannot write " + copy_to);
        Record& record = file.records.emplace_back(Record{bam_get_qname(b), "", "", ""});
        for (int i = 0; i < b->core.l_qseq; ++i) {
            record.bases += seq_nt16_str[bam_seqi(bam_get_seq(b), i)];
            record.qualities += static_cast<char>(bam_get_qual(b)[i] + 33);
        }
        record.aux.assign(reinterpret_cast<const char*>(bam_get_aux(b)), bam_get_l_aux(b));
    }
    bam_destroy1(b);
    sam_hdr_destroy(header);
    sam_close(in);
    if ((out != nullptr && sam_close(out) != 0) || status < -1) throw std::runtime_error("damaged " + path);
    return file;
}

inline void WriteAlignments(const std::string& path, const std::string& sam_text) {
    std::ofstream(path + ".sam", std::ios::binary) << sam_text;
    ReadAlignments(path + ".sam", path);
}

}  // namespace HtslibFiles
