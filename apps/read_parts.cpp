#include "apps/read_parts.h"

#include <optional>
#include <string_view>

#include "common/bam_record.h"
#include "common/base_modifications.h"
#include "common/logger.h"

namespace Vorpa {

namespace {

const Common::Logger& PartLog() {
    static const Common::Logger logger("read_processor");
    return logger;
}

}  // namespace

Common::FastQRecord MakeReadPart(const Common::FastQRecord& read, int begin, int end, int k) {
    const auto from = static_cast<size_t>(begin), count = static_cast<size_t>(end - begin);
    Common::FastQRecord part;
    part.sequence.assign(read.sequence, from, count);
    part.qstring.assign(read.qstring, from, count);
    const std::string_view read_id = read.ReadId();
    const std::string_view comment = read.Comment();
    std::optional<std::string_view> run_id;
    if (read.HasRunId()) run_id = read.RunId();
    part.ComposeTitle(std::string(read_id) + "_" + std::to_string(k),
                      comment.empty() ? std::nullopt : std::optional<std::string_view>(comment), run_id);
    if (read.tags) {
        part.tags = *read.tags;
        Common::RemoveTags(*part.tags, Common::kPerBaseTags);
        const std::string problem =
            Common::TrimModificationTags(*part.tags, read.sequence, from, read.sequence.size() - from - count);
        if (!problem.empty())
            VB_LOG(PartLog(), Common::Severity::warning)
                << "Read " << read_id << ": base modification tags left out of part " << k << ": " << problem;
    }
    return part;
}

}  // namespace Vorpa
