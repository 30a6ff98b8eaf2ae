#include "apps/read_batch.h"

namespace Vorpa {

Common::FastqChunk& ReadBatch::ChunkFor(const std::string& folder, std::string_view run_id) {
    key_.assign(folder).append(1, '\0').append(run_id);
    const auto found = chunk_index_.find(key_);
    if (found != chunk_index_.end()) return chunks[found->second];
    chunk_index_.emplace(key_, chunks.size());
    chunks.emplace_back();
    chunks.back().folder = folder;
    chunks.back().run_id.assign(run_id);
    return chunks.back();
}

}  // namespace Vorpa
