// Modification tags through trimming, checked by decoding them before and
// after with the test's own decoder: it walks the read base by base to place
// each call, where the code under test counts occurrences.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "common/base_modifications.h"

namespace Common {
namespace {

struct Field {
    std::string tag;
    std::string type;   // "Z", "BC", "i", "A"
    std::string value;  // text, array bytes, integer as decimal, character
};

std::string Encode(const std::vector<Field>& fields) {
    std::string aux;
    for (const auto& f : fields) {
        aux += f.tag + f.type;
        if (f.type == "Z") {
            aux += f.value + '\0';
        } else if (f.type == "BC") {
            const auto n = static_cast<uint32_t>(f.value.size());
            aux.append(reinterpret_cast<const char*>(&n), 4);
            aux += f.value;
        } else if (f.type == "i") {
            const auto n = static_cast<int32_t>(std::stol(f.value));
            aux.append(reinterpret_cast<const char*>(&n), 4);
        } else {
            aux += f.value;
        }
    }
    return aux;
}

// The inverse of Encode for the types it writes.
std::vector<Field> Decode(const std::string& aux) {
    std::vector<Field> fields;
    for (size_t at = 0; at < aux.size();) {
        Field f{aux.substr(at, 2), std::string(1, aux[at + 2]), ""};
        at += 3;
        if (f.type == "Z") {
            const size_t nul = aux.find('\0', at);
            f.value = aux.substr(at, nul - at);
            at = nul + 1;
        } else if (f.type == "B") {
            f.type += aux[at];
            uint32_t n;
            std::memcpy(&n, aux.data() + at + 1, 4);
            f.value = aux.substr(at + 5, n);
            at += 5 + n;
        } else if (f.type == "i") {
            int32_t n;
            std::memcpy(&n, aux.data() + at, 4);
            f.value = std::to_string(n);
            at += 4;
        } else {
            f.value = aux.substr(at, 1);
            at += 1;
        }
        fields.push_back(f);
    }
    return fields;
}

const Field* Find(const std::vector<Field>& fields, const std::string& tag) {
    for (const auto& f : fields)
        if (f.tag == tag) return &f;
    return nullptr;
}

// One modification list with its calls at read positions.
struct List {
    std::string head;  // base, strand, codes, mode: "C+mh?"
    size_t codes = 0;
    std::vector<size_t> positions;
    std::vector<std::string> probabilities;  // per call, one byte per code
    bool operator==(const List&) const = default;
};

bool Matches(char fundamental, char base) {
    return fundamental == 'N' || fundamental == base || (fundamental == 'U' && base == 'T');
}

// MM and ML of a read back into lists with positions; fails the test when the
// tags are not what the format allows.
std::vector<List> DecodeCalls(const std::string& bases, const std::string& mm, const std::string* ml) {
    static const std::regex kList("([ACGTUN])([-+])([a-zA-Z]+|[0-9]+)([.?]?)((?:,[0-9]+)*);");
    std::vector<List> lists;
    size_t consumed = 0, probability = 0;
    for (auto it = std::sregex_iterator(mm.begin(), mm.end(), kList); it != std::sregex_iterator(); ++it) {
        const auto& m = *it;
        EXPECT_EQ(static_cast<size_t>(m.position()), consumed) << mm;
        consumed += static_cast<size_t>(m.length());
        List list;
        list.head = m[1].str() + m[2].str() + m[3].str() + m[4].str();
        list.codes = isdigit(static_cast<unsigned char>(m[3].str()[0])) ? 1 : static_cast<size_t>(m[3].length());
        const std::string skips = m[5].str();
        size_t pos = 0;
        for (size_t comma = 0; comma < skips.size();) {
            const size_t end = skips.find(',', comma + 1);
            int skip = std::stoi(skips.substr(comma + 1, end - comma - 1));
            // Walk past `skip` matching bases, then stop on the next one.
            for (;; ++pos) {
                EXPECT_LT(pos, bases.size()) << "call past the end in " << mm;
                if (pos >= bases.size()) return {};
                if (Matches(list.head[0], bases[pos]) && skip-- == 0) break;
            }
            list.positions.push_back(pos++);
            if (ml != nullptr) {
                list.probabilities.push_back(ml->substr(probability, list.codes));
                probability += list.codes;
            }
            comma = end == std::string::npos ? skips.size() : end;
        }
        lists.push_back(list);
    }
    EXPECT_EQ(consumed, mm.size()) << mm;
    if (ml != nullptr) {
        EXPECT_EQ(probability, ml->size()) << mm;
    }
    return lists;
}

// The lists as a read cut to [front, front + kept) must show them.
std::vector<List> Cut(std::vector<List> lists, size_t front, size_t kept) {
    for (auto& list : lists) {
        List out{list.head, list.codes, {}, {}};
        for (size_t i = 0; i < list.positions.size(); ++i) {
            if (list.positions[i] < front || list.positions[i] >= front + kept) continue;
            out.positions.push_back(list.positions[i] - front);
            if (!list.probabilities.empty()) out.probabilities.push_back(list.probabilities[i]);
        }
        list = out;
    }
    return lists;
}

struct RandomRead {
    std::string bases;
    std::vector<Field> fields;
    std::string list_tag, probability_tag;  // MM and ML, or Mm and Ml
};

RandomRead MakeRead(std::mt19937& rng) {
    static const std::string kCodes = "mhfcaogeCAN";
    static const char* kModes[] = {"", ".", "?"};
    RandomRead read;
    const size_t length = 1 + rng() % 160;
    for (size_t i = 0; i < length; ++i)
        read.bases += "ACGT"[rng() % 4];
    const bool old_names = rng() % 4 == 0;
    read.list_tag = old_names ? "Mm" : "MM";
    read.probability_tag = old_names ? "Ml" : "ML";
    const bool with_probabilities = rng() % 5 != 0;

    std::string mm, ml;
    const size_t count = rng() % 5;
    for (size_t l = 0; l < count; ++l) {
        const char base = "ACGTUN"[rng() % 6];
        std::string head = std::string(1, base) + "+-"[rng() % 2];
        size_t codes = 1;
        if (rng() % 5 == 0) {
            head += "27551";
        } else {
            codes = 1 + rng() % 3;
            for (size_t c = 0; c < codes; ++c)
                head += kCodes[rng() % kCodes.size()];
        }
        mm += head + kModes[rng() % 3];
        const unsigned density = rng() % 100;
        size_t skip = 0;
        for (char b : read.bases) {
            if (!Matches(base, b)) continue;
            if (rng() % 100 >= density) {
                ++skip;
                continue;
            }
            mm += "," + std::to_string(skip);
            skip = 0;
            for (size_t c = 0; c < codes; ++c)
                ml += static_cast<char>(rng() % 256);
        }
        mm += ';';
    }
    read.fields.push_back({"RG", "Z", "group"});
    read.fields.push_back({read.list_tag, "Z", mm});
    if (rng() % 2) read.fields.push_back({"ar", "Z", "barcode01"});
    if (with_probabilities) read.fields.push_back({read.probability_tag, "BC", ml});
    if (rng() % 2) read.fields.push_back({"MN", "i", std::to_string(length)});
    if (rng() % 2) std::swap(read.fields[1], read.fields.back());
    return read;
}

TEST(TrimModificationTags, RandomListsKeepEveryCallOnItsBase) {
    std::mt19937 rng(19);
    for (int round = 0; round < 4000; ++round) {
        const RandomRead read = MakeRead(rng);
        const size_t length = read.bases.size();
        const size_t front = rng() % 3 == 0 ? 0 : rng() % length;
        const size_t rear = rng() % 3 == 0 ? 0 : rng() % (length - front);
        const size_t kept = length - front - rear;
        SCOPED_TRACE(read.bases + " " + Find(read.fields, read.list_tag)->value + " front " + std::to_string(front) +
                     " rear " + std::to_string(rear));

        const Field* ml = Find(read.fields, read.probability_tag);
        const auto before =
            DecodeCalls(read.bases, Find(read.fields, read.list_tag)->value, ml != nullptr ? &ml->value : nullptr);
        std::string aux = Encode(read.fields);
        ASSERT_EQ(TrimModificationTags(aux, read.bases, front, rear), "");

        const auto fields = Decode(aux);
        const std::string cut_bases = read.bases.substr(front, kept);
        const Field* new_ml = Find(fields, read.probability_tag);
        ASSERT_EQ(new_ml != nullptr, ml != nullptr);
        const auto after =
            DecodeCalls(cut_bases, Find(fields, read.list_tag)->value, new_ml != nullptr ? &new_ml->value : nullptr);
        EXPECT_EQ(after, Cut(before, front, kept));
        for (const auto& list : after)
            for (size_t pos : list.positions)
                EXPECT_TRUE(Matches(list.head[0], cut_bases[pos]));

        // Every other tag as it was, in its place; MN the new length.
        ASSERT_EQ(fields.size(), read.fields.size() + (Find(read.fields, "MN") == nullptr));
        for (size_t i = 0; i < read.fields.size(); ++i) {
            EXPECT_EQ(fields[i].tag, read.fields[i].tag);
            if (fields[i].tag == "RG" || fields[i].tag == "ar") {
                EXPECT_EQ(fields[i].value, read.fields[i].value);
            }
        }
        EXPECT_EQ(Find(fields, "MN")->value, std::to_string(kept));
    }
}

// Tags that cannot be read are dropped, all of them, never written wrong;
// the other tags stay.
TEST(TrimModificationTags, UnreadableTagsAreDropped) {
    struct Case {
        std::vector<Field> fields;
        const char* problem;
    };
    const std::string two("\x01\x02", 2);
    const Case cases[] = {
        {{{"MM", "Z", "C+m,1,1"}, {"ML", "BC", two}}, "no ';'"},
        {{{"MM", "Z", "X+m,1;"}}, "no base"},
        {{{"MM", "Z", "C*m,1;"}}, "no strand"},
        {{{"MM", "Z", "C+,1;"}}, "no modification code"},
        {{{"MM", "Z", "C+m,,1;"}}, "no skip count"},
        {{{"MM", "Z", "C+m,4;"}}, "past the last 'C'"},
        {{{"MM", "Z", "C+m,99999999999999999999999;"}}, "past the last 'C'"},
        {{{"MM", "Z", "C+m,0,0;"}, {"ML", "BC", "\x01"}}, "more calls"},
        {{{"MM", "Z", "C+m,0;"}, {"ML", "BC", two}}, "2 probabilities"},
        {{{"MM", "Z", "C+m,0;"}, {"ML", "Z", "x"}}, "not an array of bytes"},
        {{{"MM", "A", "C"}}, "not text"},
        {{{"ML", "BC", two}}, "ML without MM"},
        {{{"MM", "Z", "C+m,0;"}, {"MN", "i", "6"}}, "MN says 6 bases, the read has 7"},
        {{{"MM", "Z", "C+m,0;"}, {"MM", "Z", "C+m,0;"}}, "MM twice"},
    };
    for (const auto& c : cases) {
        auto fields = c.fields;
        fields.insert(fields.begin(), {"RG", "Z", "group"});
        fields.push_back({"ar", "Z", "barcode01"});
        std::string aux = Encode(fields);
        const std::string problem = TrimModificationTags(aux, "ACCCGGC", 1, 1);
        EXPECT_NE(problem.find(c.problem), std::string::npos) << problem;
        EXPECT_EQ(aux, Encode({{"RG", "Z", "group"}, {"ar", "Z", "barcode01"}})) << c.problem;
    }
    // Without modification tags nothing changes; a cut longer than the read is a caller's bug.
    const std::string plain = Encode({{"RG", "Z", "group"}, {"ar", "Z", "barcode01"}});
    std::string copy = plain;
    EXPECT_EQ(TrimModificationTags(copy, "ACGT", 1, 1), "");
    EXPECT_EQ(copy, plain);
    EXPECT_THROW(TrimModificationTags(copy, "ACGT", 3, 2), std::invalid_argument);
}

}  // namespace
}  // namespace Common
