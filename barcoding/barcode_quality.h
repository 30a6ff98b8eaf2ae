#pragma once
// How sure a call is: the probability that a read's barcode is wrong (another
// barcode, or none at all), from what the scorer knows about the call
// (QualityInputs), and that probability on the Phred scale.
//
// The model is a logistic regression on three figures of the call:
//   margin    substitutions by which the called barcode beats the best other
//             barcode of its kit, summed over the ends where it is the best
//             (two ends agreeing count twice), at most kMaxQualityMargin;
//   presence  the larger presence of the called barcode at its ends, / 100;
//   conflict  the presence (/ 100) of another barcode that is the best of its
//             kit at an end where the called barcode is not, 0 when none is.
// Its coefficients are fitted by tools/calibrate.py on simulated reads of a
// family of kit designs (docs/calibration.md) and shipped in
// data/barcoding/vb_quality.tsv, which the build embeds in the program.

#include <string>

#include "barcoding/detect_results.h"

namespace Barcoding {

constexpr double kMaxQualityMargin = 20;
constexpr int kMaxBarcodeQuality = 60;

struct QualityModel {
    double intercept = 0;
    double margin = 0;    // <= 0: a wider margin never lowers the quality
    double presence = 0;  // <= 0
    double conflict = 0;  // >= 0
};

// Reads a model: lines "name<TAB>value" for intercept, margin, presence and
// conflict, each exactly once; '#' starts a comment line. Throws
// std::runtime_error naming source and line for anything else, and for a
// coefficient of the wrong sign.
QualityModel ParseQualityModel(const std::string& text, const std::string& source);

// The model shipped with the program.
const QualityModel& ShippedQualityModel();

// The probability that a call with these inputs is wrong.
double WrongCallProbability(const QualityModel& model, const QualityInputs& inputs);

// round(-10 log10 p), between 0 and kMaxBarcodeQuality.
int PhredQuality(double probability);

}  // namespace Barcoding
