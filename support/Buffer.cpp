#include "support/Buffer.h"

#include <cstring>
#include <stdexcept>

namespace Corvane {

void Buffer::reserve(std::size_t bytes) {
    if (bytes + 1 > m_store.size()) {
        m_store.resize(bytes + 1, '\0');
    }
}

void Buffer::_grow(std::size_t bytes) {
    if (bytes + 1 <= m_store.size()) {
        return;
    }
    // Round up to the growth step, and at least double, so that appending n
    // bytes one piece at a time costs O(n) copies in total.
    std::size_t want = ((bytes + 1 + m_step - 1) / m_step) * m_step;
    if (want < 2 * m_store.size()) {
        want = 2 * m_store.size();
    }
    m_store.resize(want, '\0');
}

void Buffer::length(std::size_t count) {
    _grow(count);
    m_length = count;
    m_store[m_length] = '\0';
}

void Buffer::append(const void* bytes, std::size_t count) {
    if (count == 0) {
        return;
    }
    const char* from = static_cast<const char*>(bytes);
    if (from >= m_store.data() && from < m_store.data() + m_store.size()) {
        // Appending a piece of ourselves: growing may move the storage.
        std::string copy(from, count);
        append(copy.data(), copy.size());
        return;
    }
    _grow(m_length + count);
    std::memcpy(m_store.data() + m_length, bytes, count);
    m_length += count;
    m_store[m_length] = '\0';
}

char Buffer::at(std::size_t index) const {
    if (index >= m_length) {
        throw std::out_of_range("Buffer::at: index past the content");
    }
    return m_store[index];
}

}  // namespace Corvane
