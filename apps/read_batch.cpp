#include "apps/read_batch.h"

namespace Vorpa {

Common::FastqChunk& ReadBatch::ChunkFor(const std::string& folder, const std::string& run_id) {
    std::string key = folder;
    key += '\0';
    key += run_id;
    auto [found, added] = chunk_index_.try_emplace(std::move(key), chunks.size());
    if (added) {
        chunks.emplace_back();
        chunks.back().folder = folder;
        chunks.back().run_id = run_id;
    }
    return chunks[found->second];
}

}  // namespace Vorpa
