#include "barcoding/barcode_quality.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <sstream>
#include <stdexcept>

#include "shipped_quality_model.h"

namespace Barcoding {

QualityModel ParseQualityModel(const std::string& text, const std::string& source) {
    QualityModel model;
    const std::map<std::string, double*> slots = {{"intercept", &model.intercept},
                                                  {"margin", &model.margin},
                                                  {"presence", &model.presence},
                                                  {"conflict", &model.conflict}};
    std::map<std::string, int> seen;
    std::istringstream lines(text);
    std::string line;
    int number = 0;
    auto fail = [&](const std::string& why) {
        throw std::runtime_error(source + ", line " + std::to_string(number) + ": " + why);
    };
    while (std::getline(lines, line)) {
        ++number;
        if (line.empty() || line[0] == '#') continue;
        const size_t tab = line.find('\t');
        if (tab == std::string::npos) fail("expected a name, a tab and a value");
        const std::string name = line.substr(0, tab);
        const auto slot = slots.find(name);
        if (slot == slots.end()) fail("unknown coefficient '" + name + "'");
        if (seen[name]++ > 0) fail("'" + name + "' given twice");
        const std::string value = line.substr(tab + 1);
        size_t used = 0;
        double parsed = 0;
        try {
            parsed = std::stod(value, &used);
        } catch (const std::exception&) {
            used = 0;
        }
        if (used == 0 || used != value.size() || !std::isfinite(parsed)) fail("'" + value + "' is not a number");
        *slot->second = parsed;
    }
    for (const auto& [name, slot] : slots)
        if (seen.count(name) == 0) throw std::runtime_error(source + ": no value for '" + name + "'");
    if (model.margin > 0 || model.presence > 0 || model.conflict < 0)
        throw std::runtime_error(source +
                                 ": a wider margin or more presence must not lower the quality, nor a conflict "
                                 "raise it (margin and presence at most 0, conflict at least 0)");
    return model;
}

const QualityModel& ShippedQualityModel() {
    static const QualityModel model = ParseQualityModel(kShippedQualityModelText, "data/barcoding/vb_quality.tsv");
    return model;
}

double WrongCallProbability(const QualityModel& model, const QualityInputs& inputs) {
    double margin = 0, presence = -1, conflict = 0;
    for (const EndEvidence* end : {&inputs.front, &inputs.rear}) {
        if (!end->barcode) continue;
        presence = std::max(presence, static_cast<double>(end->presence) / 100);
        if (end->score > 0) {
            margin += std::max(0.0, static_cast<double>(end->over_rival));
        } else if (end->runner_up_score > 0) {
            conflict = std::max(conflict, static_cast<double>(end->runner_up_presence) / 100);
        }
    }
    margin = std::min(margin, kMaxQualityMargin);
    presence = std::clamp(presence, -1.0, 1.0);
    conflict = std::min(conflict, 1.0);
    const double z = model.intercept + model.margin * margin + model.presence * presence + model.conflict * conflict;
    return 1 / (1 + std::exp(-z));
}

int PhredQuality(double probability) {
    if (!(probability > 0)) return kMaxBarcodeQuality;
    const double phred = std::round(-10 * std::log10(probability));
    return static_cast<int>(std::clamp(phred, 0.0, static_cast<double>(kMaxBarcodeQuality)));
}

}  // namespace Barcoding
