// Why a per-read rival and not only a static floor: constant flank bases sit
// in every reference of a kit, so read errors in the flanks lower the right
// and the wrong barcodes alike. Divided by the self-score alone, a long flank
// lifts a wrong barcode as much as a right one, and a damaged flank sinks a
// right one; a static floor (what the closest competitor scores on a perfect
// copy) moves the zero but not that noise: at identity 0.87 a 104-base
// reference loses about 13 errors x 10 points, more than the whole gap
// between right and wrong. Subtracting the best competitor's score on the
// same read cancels it, because both align over the same damaged flanks and
// their difference measures the barcode core. The static floor only fixes the
// length of the scale, so that a perfect copy scores 100; the background
// keeps reads without a barcode near 0 and scales a kit of one barcode.
//
// Why presence as well: with long flanks the margin's range is the barcode
// core alone, while on a read end without any construct the best of a kit's
// references stands above its runner-up by chance, by as much as a third of
// that short range. Presence is measured over the whole reference, flanks
// included, against random sequence, so such an end stays near 0 there,
// while a damaged copy keeps a presence far above the margin. The detect
// score takes the smaller of the two: one threshold asks for both. Presence
// counts from the top of the random range, not its mean: the spread of
// random sequence's best fit grows with the reference (from about 5 points
// for 16 bases to 20 for 120), and a fixed share of the range above the
// mean would leave short references within reach of chance.
//
// Invariants: members_[kit] lists the kit's barcodes, each with its
// references in that kit; every reference is in at most one barcode of a kit,
// and kits_of_ says which. References with identical sequences, or standing
// for the same barcode of a kit (its two orientations), are in one barcode. A
// reference's rival is the best barcode of any of its kits other than its own.

#include "barcoding/score_scale.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
#include <stdexcept>

#include "common/data_wrappers.h"
#include "pair_alignment/fast_align.h"

namespace Barcoding {

namespace {

constexpr double kNone = -std::numeric_limits<double>::infinity();
constexpr int kNoRaw = std::numeric_limits<int>::min();
constexpr int kBackgroundWindows = 32;
constexpr uint32_t kBackgroundSeed = 20261122;

using brim::data_wrappers::VecView;

VecView<int> View(const std::vector<int>& codes) {
    return VecView<int>(const_cast<int*>(codes.data()), codes.size());
}

std::string Key(const ScaleSettings& settings, const std::vector<ScaleReference>& references) {
    std::ostringstream key;
    for (int v : settings.matrix)
        key << v << ',';
    key << '|';
    for (int v : settings.gaps)
        key << v << ',';
    key << '|' << settings.band_width << '|' << settings.window_size << '|';
    for (const auto& reference : references) {
        key << reference.name << ':';
        for (int c : reference.codes)
            key << static_cast<char>('0' + c);
        for (const auto& [kit, barcode] : reference.uses)
            key << ':' << kit.size() << ':' << kit << ':' << barcode.size() << ':' << barcode;
        key << ';';
    }
    return key.str();
}

}  // namespace

std::vector<std::vector<int>> BackgroundWindows(int length) {
    // std::mt19937's output is fixed by the standard, unlike the library's
    // distributions, so the windows (and every score) are the same everywhere.
    std::mt19937 random(kBackgroundSeed);
    std::vector<std::vector<int>> windows(kBackgroundWindows);
    for (auto& window : windows)
        for (int k = 0; k < std::max(length, 0); ++k)
            window.push_back(static_cast<int>(random() >> 30));
    return windows;
}

namespace {

// The formula's one evaluation, shared by the free functions and Apply (which
// keeps the inverse ranges), so that both give the same bits.
float Scaled(int raw, double zero, double inverse_range) {
    return static_cast<float>(std::min(100.0, 100.0 * (static_cast<double>(raw) - zero) * inverse_range));
}

}  // namespace

float ScaledScore(int raw, int self, double rival, double floor, double background) {
    return Scaled(raw, std::max(rival, background), 1.0 / (static_cast<double>(self) - std::max(floor, background)));
}

float DetectScore(int raw, int self, double rival, double floor, double background, double random_top) {
    return std::min(ScaledScore(raw, self, rival, floor, background),
                    ScaledScore(raw, self, kNone, random_top, random_top));
}

ScoreScale::ScoreScale(const ScaleSettings& settings, const std::vector<ScaleReference>& references) {
    const size_t count = references.size();
    if (settings.matrix.size() != 16) throw std::runtime_error("ScoreScale needs a 4 x 4 mismatch matrix");

    // Barcodes: references joined by an identical sequence or by standing for
    // the same barcode of a kit (e.g. its two orientations), transitively.
    std::vector<uint32_t> parent(count);
    for (size_t k = 0; k < count; ++k)
        parent[k] = static_cast<uint32_t>(k);
    auto root = [&parent](uint32_t k) {
        while (parent[k] != k)
            k = parent[k] = parent[parent[k]];
        return k;
    };
    std::map<std::vector<int>, uint32_t> by_sequence;
    std::map<std::pair<std::string, std::string>, uint32_t> by_use;
    for (size_t k = 0; k < count; ++k) {
        const uint32_t self = static_cast<uint32_t>(k);
        const uint32_t same_sequence = by_sequence.emplace(references[k].codes, self).first->second;
        parent[root(self)] = root(same_sequence);
        for (const auto& use : references[k].uses)
            parent[root(self)] = root(by_use.emplace(use, self).first->second);
    }

    // Per kit, its barcodes with their references in that kit.
    std::map<std::string, uint32_t> kits;
    std::vector<std::map<uint32_t, uint32_t>> group_of_barcode;  // per kit: barcode root -> group
    kits_of_.resize(count);
    for (size_t k = 0; k < count; ++k) {
        for (const auto& use : references[k].uses) {
            const auto [slot, new_kit] = kits.emplace(use.first, static_cast<uint32_t>(members_.size()));
            if (new_kit) {
                members_.emplace_back();
                group_of_barcode.emplace_back();
            }
            const uint32_t kit_index = slot->second;
            auto& groups = members_[kit_index];
            const auto [group, new_group] = group_of_barcode[kit_index].emplace(root(static_cast<uint32_t>(k)),
                                                                                static_cast<uint32_t>(groups.size()));
            if (new_group) groups.emplace_back();
            auto& group_references = groups[group->second];
            if (std::find(group_references.begin(), group_references.end(), k) == group_references.end())
                group_references.push_back(static_cast<uint32_t>(k));
            const Membership membership{kit_index, group->second};
            if (std::find(kits_of_[k].begin(), kits_of_[k].end(), membership) == kits_of_[k].end())
                kits_of_[k].push_back(membership);
        }
    }

    self_.resize(count);
    for (size_t k = 0; k < count; ++k) {
        int self = 0;
        for (int c : references[k].codes)
            self += settings.matrix[static_cast<size_t>(5 * c)];
        self_[k] = self;
    }
    floor_.assign(count, kNone);
    if (count == 0) return;

    std::vector<std::vector<int>> codes;
    for (const auto& reference : references)
        codes.push_back(reference.codes);
    const brim::data_wrappers::MatView<int> matrix(const_cast<int*>(settings.matrix.data()), 4, 4);
    PairAlignment::FastAlign aligner(matrix, settings.gaps, std::max(settings.band_width, 1));
    const auto batch = aligner.PrepareReferences(codes);
    std::vector<int> raw;

    // Floors: each reference's perfect copy as the window, its competitors' best.
    for (size_t k = 0; k < count; ++k) {
        if (codes[k].empty()) continue;
        aligner.ScoreBatch(*batch, View(codes[k]), raw);
        const int rival = BestRival(k, raw);
        if (rival != kNoRaw) floor_[k] = rival;
    }

    // Backgrounds: the mean over the random windows of the best score any
    // barcode of the reference's kits reaches there, its own included (0 for
    // an end that has no window, where the scale falls back to raw / self for
    // a lone reference). A barcode that fits a read no better than its kit
    // fits random sequence is no evidence, even where its competitors fit
    // worse still; this keeps reads without a barcode near or below 0.
    // On a read, the copy of a barcode sits among other bases, where its
    // competitors may find a better spot than on the copy alone: the mean of
    // their best on the random windows raises the floor to that level, so
    // that a perfect copy on a read scores 100 on average.
    background_.assign(count, 0.0);
    random_top_.assign(count, 0.0);
    if (settings.window_size > 0) {
        std::vector<int64_t> sums(count, 0), squares(count, 0), rival_sums(count, 0);
        const auto windows = BackgroundWindows(settings.window_size);
        for (const auto& window : windows) {
            aligner.ScoreBatch(*batch, View(window), raw);
            for (size_t k = 0; k < count; ++k) {
                const int rival = BestRival(k, raw);
                const int64_t best = std::max(raw[k], rival);
                sums[k] += best;
                squares[k] += best * best;
                if (rival != kNoRaw) rival_sums[k] += rival;
            }
        }
        const double n = static_cast<double>(windows.size());
        for (size_t k = 0; k < count; ++k) {
            background_[k] = static_cast<double>(sums[k]) / n;
            const double variance = static_cast<double>(squares[k]) / n - background_[k] * background_[k];
            random_top_[k] = background_[k] + kPresenceSpread * std::sqrt(std::max(variance, 0.0));
            if (floor_[k] != kNone) floor_[k] = std::max(floor_[k], static_cast<double>(rival_sums[k]) / n);
        }
    }

    for (size_t k = 0; k < count; ++k) {
        if (static_cast<double>(self_[k]) > std::max({floor_[k], background_[k], random_top_[k]})) {
            inverse_margin_range_.push_back(1.0 /
                                            (static_cast<double>(self_[k]) - std::max(floor_[k], background_[k])));
            inverse_presence_range_.push_back(1.0 / (static_cast<double>(self_[k]) - random_top_[k]));
            continue;
        }
        const std::string& name = references[k].name;
        if (static_cast<double>(self_[k]) <= floor_[k] && floor_[k] >= background_[k]) {
            std::string rival;
            aligner.ScoreBatch(*batch, View(codes[k]), raw);
            for (const auto& [kit, group] : kits_of_[k])
                for (size_t other = 0; other < members_[kit].size(); ++other)
                    for (uint32_t j : members_[kit][other])
                        if (other != group && static_cast<double>(raw[j]) == floor_[k]) rival = references[j].name;
            throw std::runtime_error("Barcodes '" + name + "' and '" + rival +
                                     "' of the same kit cannot be told apart: against a perfect copy of '" + name +
                                     "', '" + rival + "' scores " + std::to_string(static_cast<int>(floor_[k])) +
                                     ", as much as '" + name + "' itself (" + std::to_string(self_[k]) + ").");
        }
        throw std::runtime_error("Barcode '" + name + "' is too short to stand out from random sequence: it scores " +
                                 std::to_string(background_[k]) + " on average in a random window of " +
                                 std::to_string(settings.window_size) + " bases (up to about " +
                                 std::to_string(random_top_[k]) + "), as much as against itself (" +
                                 std::to_string(self_[k]) + ").");
    }
}

int ScoreScale::BestRival(size_t k, const std::vector<int>& raw) const {
    int rival = kNoRaw;
    for (const auto& [kit, group] : kits_of_[k])
        for (size_t other = 0; other < members_[kit].size(); ++other)
            if (other != group)
                for (uint32_t j : members_[kit][other])
                    rival = std::max(rival, raw[j]);
    return rival;
}

void ScoreScale::Apply(const std::vector<int>& raw, std::vector<float>& scores, Work& work) const {
    // Per kit, the best and second-best barcode (each at the best of its
    // references); a reference's rival is then the best barcode other than
    // its own, in any of its kits.
    const size_t kit_count = members_.size();
    work.best.assign(kit_count, kNoRaw);
    work.second.assign(kit_count, kNoRaw);
    work.best_group.assign(kit_count, 0);
    for (size_t kit = 0; kit < kit_count; ++kit) {
        int best = kNoRaw, second = kNoRaw;
        uint32_t best_group = 0;
        const auto& groups = members_[kit];
        for (size_t group = 0; group < groups.size(); ++group) {
            int value = kNoRaw;
            for (uint32_t j : groups[group])
                value = std::max(value, raw[j]);
            if (value > best) {
                second = best;
                best = value;
                best_group = static_cast<uint32_t>(group);
            } else if (value > second) {
                second = value;
            }
        }
        work.best[kit] = best;
        work.second[kit] = second;
        work.best_group[kit] = best_group;
    }
    scores.resize(self_.size());
    for (size_t k = 0; k < self_.size(); ++k) {
        // DetectScore with the inverse ranges kept.
        const int rival = Rival(k, work);
        const double zero = rival == kNoRaw ? background_[k] : std::max(static_cast<double>(rival), background_[k]);
        scores[k] = std::min(Scaled(raw[k], zero, inverse_margin_range_[k]),
                             Scaled(raw[k], random_top_[k], inverse_presence_range_[k]));
    }
}

int ScoreScale::Rival(size_t k, const Work& work) const {
    int rival = kNoRaw;
    for (const auto& [kit, group] : kits_of_[k])
        rival = std::max(rival, work.best_group[kit] == group ? work.second[kit] : work.best[kit]);
    return rival;
}

// The margin's formula with no rival and the top of the random range for
// zero and floor: the whole reference above random sequence. The range runs
// from there, not from the floor: divided by the margin's range (self -
// floor, the barcode core alone when the flanks are long), the spread of
// random sequence over a reference with flanks would come out several times
// wider, and random read ends would pass for barcodes.
float ScoreScale::Presence(size_t k, int raw) const {
    return ScaledScore(raw, self_[k], kNone, random_top_[k], random_top_[k]);
}

std::shared_ptr<const ScoreScale> ShareScoreScale(const ScaleSettings& settings,
                                                  const std::vector<ScaleReference>& references) {
    static std::mutex mutex;
    static std::map<std::string, std::weak_ptr<const ScoreScale>> shared;
    const std::string key = Key(settings, references);
    std::lock_guard<std::mutex> lock(mutex);
    for (auto it = shared.begin(); it != shared.end();)
        it = it->second.expired() ? shared.erase(it) : std::next(it);
    if (auto found = shared.find(key); found != shared.end())
        if (auto scale = found->second.lock()) return scale;
    auto scale = std::make_shared<const ScoreScale>(settings, references);
    shared[key] = scale;
    return scale;
}

}  // namespace Barcoding
