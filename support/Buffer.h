#ifndef ZEMAIL_SUPPORT_BUFFER_H
#define ZEMAIL_SUPPORT_BUFFER_H

#include <cstddef>
#include <string>
#include <vector>

namespace Corvane {

// A growable byte buffer. The content is always followed by one zero byte, so
// data() can be handed to C-string code when the content holds no zero byte.
// Storage grows in multiples of the growth step (1024 bytes unless set), which
// keeps line-by-line appends from reallocating on every call.
class Buffer {
public:
    static constexpr std::size_t kDefaultStep = 1024;

    Buffer() { m_store.assign(1, '\0'); }
    explicit Buffer(const std::string& text) : Buffer() { append(text); }
    Buffer(const void* bytes, std::size_t count) : Buffer() { append(bytes, count); }

    char* data() { return m_store.data(); }
    const char* data() const { return m_store.data(); }
    const char* c_str() const { return m_store.data(); }
    std::size_t length() const { return m_length; }
    bool empty() const { return m_length == 0; }

    // Sets the content length. Readers write into data() (after reserve())
    // and then set the length to what they wrote, so growing keeps the bytes
    // already in storage (zero where nothing was ever written). The
    // terminating zero byte follows either way.
    void length(std::size_t count);
    void clear() { length(0); }

    void append(const void* bytes, std::size_t count);
    void append(const std::string& text) { append(text.data(), text.size()); }
    void append(char byte) { append(&byte, 1); }

    // Byte access; an index at or past length() is the caller's error (checked by at()).
    char& operator[](std::size_t index) { return m_store[index]; }
    char operator[](std::size_t index) const { return m_store[index]; }
    char at(std::size_t index) const;

    std::size_t step() const { return m_step; }
    void step(std::size_t bytes) { m_step = bytes ? bytes : 1; }
    // Makes room for at least bytes of content without reallocating; an
    // explicit reserve gives exactly that capacity (readers that fill a
    // buffer "up to its size" rely on it).
    void reserve(std::size_t bytes);
    std::size_t capacity() const { return m_store.size() - 1; }

    std::string str() const { return std::string(data(), m_length); }

private:
    void _grow(std::size_t bytes);

    std::vector<char> m_store;  // content, then at least one zero byte
    std::size_t m_length = 0;
    std::size_t m_step = kDefaultStep;
};

}  // namespace Corvane

#endif
