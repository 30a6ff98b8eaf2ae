#pragma once
// Cross-talk: how many of a sample's reads belong to another sample. Reads
// called to an arrangement (or a pair) of the run's kits that the sample sheet
// does not list can only come from misassignment, since no sample carries
// those barcodes; the same misassignment also moves reads between listed
// samples, where nothing marks them. A model of where a misassigned read
// lands scales the one to the other:
//
//   arrangements  a misassigned read is equally likely to land on any other
//                 arrangement (normalised id) of the selected kits: sample a
//                 receives (N - n_a) / (K - 1) per unit of rate, the unlisted
//                 arrangements (K - L) N / (K - 1) together (N reads of the L
//                 listed arrangements, n_a of them a's, K arrangements);
//   pairs         one end of a misassigned read carries the barcode of another
//                 read, drawn in proportion to its share at that end (a
//                 chimera, a swapped adapter): the pair (x, y) receives
//                 F_x R_y / N per unit of rate, less what stays in place
//                 (F_x: listed reads with front x, R_y with rear y), over the
//                 sheet's front barcodes x its rear barcodes.
//
// The rate is the unlisted reads over what the unlisted arrangements (pairs)
// receive per unit; a sample's estimate is that rate times what it receives.
// The 95 % interval is that of the sample's foreign reads given the unlisted
// count: Poisson counts with an unknown common rate (flat prior), whose
// predictive distribution is negative binomial. README "Cross-talk" says the
// same for users, with the assumptions.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "apps/sample_sheet.h"

namespace Vorpa {

// What the estimate needs to know of the run's sheet and kits.
struct CrossTalkDesign {
    bool pairs = false;
    std::vector<std::string> kit_names;              // arrangements: every normalised id of the selected kits
    std::vector<Barcoding::BarcodePair> pair_cells;  // pairs: the listed pairs
    std::map<std::string, std::string> sample_of;    // listed arrangement or pair name -> sample
};

CrossTalkDesign MakeCrossTalkDesign(const SampleSheet& sheet, const std::vector<std::string>& kit_names);

// Foreign reads among reads assigned to a sample (or to all listed samples).
struct CrossTalkFigure {
    uint64_t reads = 0;  // assigned
    double foreign = 0;  // estimated reads that belong to another sample
    double share = 0;    // foreign / reads
    double low = 0;      // 95 % interval of the share
    double high = 0;
};

struct CrossTalkEstimate {
    const char* method = "";  // "unlisted arrangements" or "unlisted pairs"
    bool measurable = false;
    std::string not_measurable;   // why, when not measurable
    uint64_t unlisted_reads = 0;  // reads the estimate rests on
    CrossTalkFigure run;
    std::map<std::string, CrossTalkFigure> samples;
};

// listed_reads: reads assigned per listed arrangement or pair name;
// unlisted_reads: reads called to names the sheet does not list (names
// outside the model, say a pair of two front barcodes, are not used).
CrossTalkEstimate EstimateCrossTalk(const CrossTalkDesign& design, const std::map<std::string, uint64_t>& listed_reads,
                                    const std::map<std::string, uint64_t>& unlisted_reads);

// The central 95 % interval [low, high] of foreign reads M when unlisted
// reads U ~ Poisson(rate * unlisted_weight) were seen and M ~ Poisson(rate *
// weight): negative binomial quantiles, with U events for the low end and
// U + 1 for the high end (so U = 0 gives low = 0). Neither end goes above
// cap (the reads the foreign ones are among).
std::pair<double, double> ForeignReadsInterval(uint64_t unlisted, double unlisted_weight, double weight, double cap);

}  // namespace Vorpa
