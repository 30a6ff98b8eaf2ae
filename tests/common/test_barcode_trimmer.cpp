#include <gtest/gtest.h>

#include <random>

#include "common/barcode_trimmer.h"
#include "tests/support/error_of.h"

namespace Common {
namespace {

// Expected amount by the clamping rules: negative -> 0, at least the length ->
// keep one base.
int ExpectedTrim(int trim, int length) {
    if (trim <= 0) return 0;
    return trim < length ? trim : std::max(length - 1, 0);
}

TEST(BarcodeTrimmer, RandomTrimsMatchTheClampingRules) {
    std::mt19937 random(7);
    for (int round = 0; round < 500; ++round) {
        const int length = static_cast<int>(random() % 12);
        std::string sequence, qstring;
        for (int k = 0; k < length; ++k) {
            sequence += "ACGT"[random() % 4];
            qstring += static_cast<char>('!' + k);
        }
        const int trim = static_cast<int>(random() % 20) - 5;
        const int expected = ExpectedTrim(trim, length);

        std::string front_seq = sequence, front_q = qstring;
        ASSERT_EQ(BarcodeTrimmer::TrimFront(trim, front_seq, front_q), expected);
        EXPECT_EQ(front_seq, sequence.substr(static_cast<size_t>(expected)));
        EXPECT_EQ(front_q, qstring.substr(static_cast<size_t>(expected)));

        std::string rear_seq = sequence, rear_q = qstring;
        ASSERT_EQ(BarcodeTrimmer::TrimRear(trim, rear_seq, rear_q), expected);
        EXPECT_EQ(rear_seq, sequence.substr(0, static_cast<size_t>(length - expected)));
        EXPECT_EQ(rear_q, qstring.substr(0, static_cast<size_t>(length - expected)));
    }
}

TEST(BarcodeTrimmer, LengthMismatchIsReportedBeforeClamping) {
    for (int trim : {-3, 0, 2, 100}) {
        std::string sequence = "ACGT", qstring = "!!!";
        EXPECT_EQ(TestSupport::ErrorOf([&] { BarcodeTrimmer::TrimFront(trim, sequence, qstring); }),
                  "Mismatching sequence and qstring lengths passed to BarcodeTrimmer::CheckTrimLengthValid");
        EXPECT_EQ(sequence, "ACGT");
    }
}

}  // namespace
}  // namespace Common
