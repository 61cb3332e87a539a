#include "sandbox/store/readerpool.h"

namespace sandbox {

ReaderPool::Reader ReaderPool::take() {
    {
        std::lock_guard<std::mutex> const lock(m_Mutex);
        if (!m_Idle.empty()) {
            std::unique_ptr<Database> database = std::move(m_Idle.back());
            m_Idle.pop_back();
            return {*this, std::move(database)};
        }
    }
    return {*this, std::make_unique<Database>(m_Path, Database::Access::kRead)};
}

void ReaderPool::giveBack(std::unique_ptr<Database> database) {
    std::lock_guard<std::mutex> const lock(m_Mutex);
    if (m_Idle.size() < kMaxIdle) {
        m_Idle.push_back(std::move(database));
    }
}

}  // namespace sandbox
