#pragma once
// htslib as the reference: files written from SAM text, and records read back
// field by field, to check this program's own BAM reading and writing.

#include <htslib/sam.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace HtslibFiles {

// Writes SAM text (header lines and records) to path as SAM, BAM or CRAM,
// chosen by the extension, through htslib's own writer.
inline void WriteAlignments(const std::string& path, const std::string& sam_text) {
    const std::string sam_path = path + ".source.sam";
    {
        FILE* file = std::fopen(sam_path.c_str(), "w");
        if (file == nullptr) throw std::runtime_error("cannot write " + sam_path);
        std::fwrite(sam_text.data(), 1, sam_text.size(), file);
        std::fclose(file);
    }
    const auto ends_with = [&](const char* suffix) {
        const std::string s(suffix);
        return path.size() >= s.size() && path.compare(path.size() - s.size(), s.size(), s) == 0;
    };
    const char* mode = ends_with(".bam") ? "wb" : ends_with(".cram") ? "wc" : "w";
    samFile* in = sam_open(sam_path.c_str(), "r");
    samFile* out = sam_open(path.c_str(), mode);
    if (in == nullptr || out == nullptr) throw std::runtime_error("cannot open " + path);
    sam_hdr_t* header = sam_hdr_read(in);
    if (header == nullptr || sam_hdr_write(out, header) != 0) throw std::runtime_error("bad header for " + path);
    bam1_t* record = bam_init1();
    int status;
    while ((status = sam_read1(in, header, record)) >= 0) {
        if (sam_write1(out, header, record) < 0) throw std::runtime_error("cannot write a record to " + path);
    }
    bam_destroy1(record);
    sam_hdr_destroy(header);
    sam_close(in);
    if (sam_close(out) != 0 || status < -1) throw std::runtime_error("cannot finish " + path);
    std::remove(sam_path.c_str());
}

struct Record {
    std::string name;
    uint16_t flag = 0;
    std::string bases;
    std::string qualities;  // Phred+33
    std::string aux;        // raw bytes
};

struct File {
    std::string header;  // text
    std::vector<Record> records;
};

// Every record of a file; throws when htslib finds it damaged.
inline File ReadAlignments(const std::string& path) {
    samFile* in = sam_open(path.c_str(), "r");
    if (in == nullptr) throw std::runtime_error("cannot open " + path);
    sam_hdr_t* header = sam_hdr_read(in);
    if (header == nullptr) throw std::runtime_error("no header in " + path);
    File file;
    file.header = sam_hdr_str(header);
    bam1_t* b = bam_init1();
    int status;
    while ((status = sam_read1(in, header, b)) >= 0) {
        Record record;
        record.name = bam_get_qname(b);
        record.flag = b->core.flag;
        for (int i = 0; i < b->core.l_qseq; ++i) {
            record.bases += seq_nt16_str[bam_seqi(bam_get_seq(b), i)];
            record.qualities += static_cast<char>(bam_get_qual(b)[i] + 33);
        }
        record.aux.assign(reinterpret_cast<const char*>(bam_get_aux(b)), bam_get_l_aux(b));
        file.records.push_back(std::move(record));
    }
    bam_destroy1(b);
    sam_hdr_destroy(header);
    sam_close(in);
    if (status < -1) throw std::runtime_error("damaged records in " + path);
    return file;
}

}  // namespace HtslibFiles
