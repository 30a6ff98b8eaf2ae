#pragma once
// One barcoder worker thread: takes read batches from the pipeline, scores
// each read with its own scorer, lets the barcoder format it into the batch,
// compresses the batch's FASTQ text per output file when asked, and hands the
// batch on to the writer.

#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "apps/ordered_pipeline.h"
#include "apps/read_batch.h"
#include "barcoding/scorer_options.h"
#include "common/fastq_writer.h"

namespace Barcoding {
class BarcodeScorer;
struct FoundConstruct;
}  // namespace Barcoding

namespace Vorpa {

class Barcoder;

class BarcoderWorker {
public:
    struct Settings {
        size_t detailed_results = 1;  // leading results that need their found sequences
        bool compress = false;        // make each output chunk a gzip member (BGZF blocks with bam)
        bool bam = false;             // the chunks hold BAM records
        bool keep_text = false;       // keep the text beside the member (the writer may cut it)
        Barcoding::InternalBarcodes internal = Barcoding::InternalBarcodes::kIgnore;
        int min_part_length = 100;  // split: shorter parts are dropped
    };

    BarcoderWorker(Barcoder& owner, OrderedPipeline<ReadBatch>& pipeline,
                   std::shared_ptr<Barcoding::BarcodeScorer> scorer, const Settings& settings);
    ~BarcoderWorker();
    BarcoderWorker(const BarcoderWorker&) = delete;
    BarcoderWorker& operator=(const BarcoderWorker&) = delete;

    // Throws std::runtime_error "Could not start worker thread".
    void Start();
    // Waits until the pipeline is drained (or stopped); the loop's status.
    int Join();

    // Everything a worker does to one batch (also callable without a thread).
    void ProcessBatch(ReadBatch& batch);

private:
    int WorkerLoop();
    void ProcessOne(Common::FastQRecord& record, ReadBatch& batch);
    // Cuts a read at its internal constructs and writes each part as a read.
    void WriteParts(const Common::FastQRecord& record, const std::vector<Barcoding::FoundConstruct>& internal,
                    ReadBatch& batch);
    void CheckRunId(std::string_view run_id);

    Barcoder& owner_;
    OrderedPipeline<ReadBatch>& pipeline_;
    std::shared_ptr<Barcoding::BarcodeScorer> scorer_;
    Settings settings_;
    std::unique_ptr<Common::OutputCompressor> compressor_;  // with compression only
    std::string usable_run_id_;                             // the last run id CheckRunId accepted
    std::vector<const std::string*> prepared_;              // the batch's sequences, for the scorer's Prepare
    std::future<int> status_;
    std::thread thread_;
};

}  // namespace Vorpa
