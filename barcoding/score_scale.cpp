// Why a per-read rival and not only a static floor: constant flank bases sit
// in every reference of a kit, so read errors in the flanks lower the right
// and the wrong barcodes alike. Divided by the self-score alone, a long flank
// lifts a wrong barcode as much as a right one, and a damaged flank sinks a
// right one; a static floor (what the closest competitor scores on a perfect
// copy) moves the zero but not that noise: at identity 0.87 a 104-base
// reference loses about 13 errors x 10 points, more than the whole gap
// between right and wrong. Subtracting the best competitor's score on the
// same read cancels it, because both align over the same damaged flanks and
// their difference measures the barcode core. The static floor and the
// background only fix the length of the scale, so that a perfect copy scores
// 100.
//
// Invariants: class_of_ maps references with identical codes to one class;
// members_[kit] lists each class at most once; a reference's rival is the best
// class of any of its kits other than its own class.

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
constexpr int kBackgroundWindows = 16;
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
        for (const auto& kit : reference.kits)
            key << ':' << kit.size() << ':' << kit;
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

float ScaledScore(int raw, int self, double rival, double floor, double background) {
    const double zero = std::max(rival, background);
    const double range = static_cast<double>(self) - std::max(floor, background);
    return static_cast<float>(std::min(100.0, 100.0 * (static_cast<double>(raw) - zero) / range));
}

ScoreScale::ScoreScale(const ScaleSettings& settings, const std::vector<ScaleReference>& references) {
    const size_t count = references.size();
    if (settings.matrix.size() != 16) throw std::runtime_error("ScoreScale needs a 4 x 4 mismatch matrix");

    // Classes of identical sequences, kits and their member classes.
    std::map<std::vector<int>, uint32_t> classes;
    std::map<std::string, uint32_t> kits;
    kits_of_.resize(count);
    for (size_t k = 0; k < count; ++k) {
        const auto [found, added] = classes.emplace(references[k].codes, static_cast<uint32_t>(representative_.size()));
        if (added) representative_.push_back(static_cast<uint32_t>(k));
        class_of_.push_back(found->second);
        for (const auto& kit : references[k].kits) {
            const auto [slot, new_kit] = kits.emplace(kit, static_cast<uint32_t>(members_.size()));
            if (new_kit) members_.emplace_back();
            auto& members = members_[slot->second];
            if (std::find(members.begin(), members.end(), found->second) == members.end())
                members.push_back(found->second);
            if (std::find(kits_of_[k].begin(), kits_of_[k].end(), slot->second) == kits_of_[k].end())
                kits_of_[k].push_back(slot->second);
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
        for (uint32_t kit : kits_of_[k])
            for (uint32_t other : members_[kit])
                if (other != class_of_[k])
                    floor_[k] = std::max(floor_[k], static_cast<double>(raw[representative_[other]]));
    }

    // Backgrounds: the mean over the random windows (0 for an end that has no
    // window, where the scale falls back to raw / self for a lone reference).
    // On a read, the copy of a barcode sits among other bases, where its
    // competitors may find a better spot than on the copy alone: the mean of
    // their best on the random windows raises the floor to that level, so
    // that a perfect copy on a read scores 100 on average.
    background_.assign(count, 0.0);
    if (settings.window_size > 0) {
        std::vector<int64_t> sums(count, 0), rival_sums(count, 0);
        const auto windows = BackgroundWindows(settings.window_size);
        for (const auto& window : windows) {
            aligner.ScoreBatch(*batch, View(window), raw);
            for (size_t k = 0; k < count; ++k) {
                sums[k] += raw[k];
                int rival = kNoRaw;
                for (uint32_t kit : kits_of_[k])
                    for (uint32_t other : members_[kit])
                        if (other != class_of_[k]) rival = std::max(rival, raw[representative_[other]]);
                if (rival != kNoRaw) rival_sums[k] += rival;
            }
        }
        const double n = static_cast<double>(windows.size());
        for (size_t k = 0; k < count; ++k) {
            background_[k] = static_cast<double>(sums[k]) / n;
            if (floor_[k] != kNone) floor_[k] = std::max(floor_[k], static_cast<double>(rival_sums[k]) / n);
        }
    }

    for (size_t k = 0; k < count; ++k) {
        if (static_cast<double>(self_[k]) > std::max(floor_[k], background_[k])) continue;
        const std::string& name = references[k].name;
        if (floor_[k] >= background_[k]) {
            std::string rival;
            aligner.ScoreBatch(*batch, View(codes[k]), raw);
            for (size_t j = 0; j < count && rival.empty(); ++j)
                if (class_of_[j] != class_of_[k] && static_cast<double>(raw[j]) == floor_[k])
                    rival = references[j].name;
            throw std::runtime_error("Barcodes '" + name + "' and '" + rival +
                                     "' of the same kit cannot be told apart: against a perfect copy of '" + name +
                                     "', '" + rival + "' scores " + std::to_string(static_cast<int>(floor_[k])) +
                                     ", as much as '" + name + "' itself (" + std::to_string(self_[k]) + ").");
        }
        throw std::runtime_error("Barcode '" + name + "' is too short to stand out from random sequence: it scores " +
                                 std::to_string(background_[k]) + " on average in a random window of " +
                                 std::to_string(settings.window_size) + " bases, as much as against itself (" +
                                 std::to_string(self_[k]) + ").");
    }
}

void ScoreScale::Apply(const std::vector<int>& raw, std::vector<float>& scores, Work& work) const {
    const size_t kit_count = members_.size();
    work.best.assign(kit_count, kNoRaw);
    work.second.assign(kit_count, kNoRaw);
    work.best_class.assign(kit_count, 0);
    for (size_t kit = 0; kit < kit_count; ++kit) {
        int best = kNoRaw, second = kNoRaw;
        uint32_t best_class = 0;
        for (uint32_t member : members_[kit]) {
            const int value = raw[representative_[member]];
            if (value > best) {
                second = best;
                best = value;
                best_class = member;
            } else if (value > second) {
                second = value;
            }
        }
        work.best[kit] = best;
        work.second[kit] = second;
        work.best_class[kit] = best_class;
    }
    scores.resize(self_.size());
    for (size_t k = 0; k < self_.size(); ++k) {
        int rival = kNoRaw;
        for (uint32_t kit : kits_of_[k])
            rival = std::max(rival, work.best_class[kit] == class_of_[k] ? work.second[kit] : work.best[kit]);
        scores[k] = ScaledScore(raw[k], self_[k], rival == kNoRaw ? kNone : static_cast<double>(rival), floor_[k],
                                background_[k]);
    }
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
