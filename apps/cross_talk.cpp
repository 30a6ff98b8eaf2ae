#include "apps/cross_talk.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>
#include <utility>

namespace Vorpa {

namespace {

// Smallest k with P(M <= k) >= q for M negative binomial: failures before the
// r-th success, success probability p. The probabilities are summed from 0
// in logarithms (p^r underflows for a few hundred successes); the sum stops
// at cap, which bounds the answer (no sample has more foreign reads than
// reads), so that the work is at most the reads of the run.
double NegativeBinomialQuantile(double r, double p, double q, double cap) {
    if (r <= 0 || p >= 1) return 0;
    const double log_q = std::log(q), log_fail = std::log1p(-p);
    double log_pmf = r * std::log(p);
    double log_cdf = log_pmf;
    double k = 0;
    while (log_cdf < log_q && k < cap) {
        log_pmf += std::log((k + r) / (k + 1)) + log_fail;
        k += 1;
        // log(exp(a) + exp(b)), the larger one factored out.
        const double high = std::max(log_cdf, log_pmf), low = std::min(log_cdf, log_pmf);
        log_cdf = high + std::log1p(std::exp(low - high));
    }
    return k;
}

CrossTalkFigure Figure(uint64_t reads, uint64_t unlisted, double unlisted_weight, double weight) {
    CrossTalkFigure figure;
    figure.reads = reads;
    figure.foreign = static_cast<double>(unlisted) * weight / unlisted_weight;
    const auto [low, high] = ForeignReadsInterval(unlisted, unlisted_weight, weight, static_cast<double>(reads));
    if (reads > 0) {
        const double assigned = static_cast<double>(reads);
        // A model that does not fit the run can estimate more foreign reads than there are.
        figure.share = std::min(1.0, figure.foreign / assigned);
        figure.low = std::min(1.0, low / assigned);
        figure.high = std::min(1.0, high / assigned);
    }
    return figure;
}

uint64_t ReadsOf(const std::map<std::string, uint64_t>& reads, const std::string& name) {
    const auto found = reads.find(name);
    return found == reads.end() ? 0 : found->second;
}

// Per listed item, what it receives per unit of rate (its weight), and what
// the unlisted items receive together; unlisted counts the reads seen there.
struct Weights {
    std::map<std::string, double> listed;
    double unlisted = 0;
    uint64_t unlisted_reads = 0;
};

Weights ArrangementWeights(const CrossTalkDesign& design, const std::map<std::string, uint64_t>& listed_reads,
                           const std::map<std::string, uint64_t>& unlisted_reads) {
    Weights weights;
    const std::set<std::string> names(design.kit_names.begin(), design.kit_names.end());
    double total = 0;
    size_t listed = 0;
    for (const auto& [name, sample] : design.sample_of) {
        total += static_cast<double>(ReadsOf(listed_reads, name));
        listed += names.count(name);
    }
    const double others = static_cast<double>(names.size()) - 1;
    if (others <= 0) return weights;
    for (const auto& [name, sample] : design.sample_of)
        weights.listed[name] = (total - static_cast<double>(ReadsOf(listed_reads, name))) / others;
    weights.unlisted = static_cast<double>(names.size() - listed) * total / others;
    for (const auto& name : names)
        if (design.sample_of.count(name) == 0) weights.unlisted_reads += ReadsOf(unlisted_reads, name);
    return weights;
}

Weights PairWeights(const CrossTalkDesign& design, const std::map<std::string, uint64_t>& listed_reads,
                    const std::map<std::string, uint64_t>& unlisted_reads) {
    Weights weights;
    std::map<std::string, double> front_reads, rear_reads;
    std::set<std::pair<std::string, std::string>> listed;
    double total = 0;
    for (const auto& cell : design.pair_cells) {
        const double reads = static_cast<double>(ReadsOf(listed_reads, Barcoding::PairName(cell.front, cell.rear)));
        front_reads[cell.front] += reads;
        rear_reads[cell.rear] += reads;
        total += reads;
        listed.emplace(cell.front, cell.rear);
    }
    if (total <= 0) return weights;
    // A listed pair receives from both ends, less the reads that land where
    // they were; a read of the pair (y, x), where the sheet uses y at the
    // front and x at the rear, reads as (x, y) from the other strand.
    for (const auto& cell : design.pair_cells) {
        const double f = front_reads[cell.front], r = rear_reads[cell.rear];
        const double n = static_cast<double>(ReadsOf(listed_reads, Barcoding::PairName(cell.front, cell.rear)));
        double weight = (2 * f * r - n * (f + r)) / (2 * total);
        if (cell.front != cell.rear && front_reads.count(cell.rear) && rear_reads.count(cell.front))
            weight += front_reads[cell.rear] * rear_reads[cell.front] / total;
        weights.listed[Barcoding::PairName(cell.front, cell.rear)] = weight;
    }
    for (const auto& [front, f] : front_reads) {
        for (const auto& [rear, r] : rear_reads) {
            if (listed.count({front, rear}) || listed.count({rear, front})) continue;
            weights.unlisted += f * r / total;
            weights.unlisted_reads += ReadsOf(unlisted_reads, Barcoding::PairName(front, rear));
        }
    }
    return weights;
}

}  // namespace

CrossTalkDesign MakeCrossTalkDesign(const SampleSheet& sheet, const std::vector<std::string>& kit_names) {
    CrossTalkDesign design;
    design.pairs = !sheet.pairs.empty();
    design.kit_names = kit_names;
    design.pair_cells = sheet.pairs;
    design.sample_of = sheet.sample_of;
    return design;
}

std::pair<double, double> ForeignReadsInterval(uint64_t unlisted, double unlisted_weight, double weight, double cap) {
    if (weight <= 0) return {0, 0};
    if (unlisted_weight <= 0) return {0, cap};
    const double p = unlisted_weight / (unlisted_weight + weight);
    const double u = static_cast<double>(unlisted);
    return {NegativeBinomialQuantile(u, p, 0.025, cap), NegativeBinomialQuantile(u + 1, p, 0.975, cap)};
}

CrossTalkEstimate EstimateCrossTalk(const CrossTalkDesign& design, const std::map<std::string, uint64_t>& listed_reads,
                                    const std::map<std::string, uint64_t>& unlisted_reads) {
    CrossTalkEstimate estimate;
    estimate.method = design.pairs ? "unlisted pairs" : "unlisted arrangements";
    const Weights weights = design.pairs ? PairWeights(design, listed_reads, unlisted_reads)
                                         : ArrangementWeights(design, listed_reads, unlisted_reads);
    estimate.unlisted_reads = weights.unlisted_reads;
    uint64_t assigned = 0;
    for (const auto& [name, sample] : design.sample_of)
        assigned += ReadsOf(listed_reads, name);
    if (assigned == 0) {
        estimate.not_measurable = "no read was assigned to a sample";
        return estimate;
    }
    if (weights.unlisted <= 0) {
        estimate.not_measurable = design.pairs ? "the sample sheet lists every pair of the barcodes it uses"
                                               : "the sample sheet lists every arrangement of the selected kits";
        return estimate;
    }
    estimate.measurable = true;
    std::map<std::string, std::pair<uint64_t, double>> per_sample;  // reads, weight
    double run_weight = 0;
    for (const auto& [name, sample] : design.sample_of) {
        auto& [reads, weight] = per_sample[sample];
        reads += ReadsOf(listed_reads, name);
        weight += weights.listed.at(name);
        run_weight += weights.listed.at(name);
    }
    for (const auto& [sample, figures] : per_sample)
        estimate.samples[sample] = Figure(figures.first, weights.unlisted_reads, weights.unlisted, figures.second);
    estimate.run = Figure(assigned, weights.unlisted_reads, weights.unlisted, run_weight);
    return estimate;
}

}  // namespace Vorpa
