#ifndef ZEMAIL_SUPPORT_MEDIA_H
#define ZEMAIL_SUPPORT_MEDIA_H

// Byte streams held by handles: MediaIn to read a message or a part from a
// file or from memory, MediaOut to write one to a file, a buffer, a string or
// a C++ stream. Encoders and decoders (support/mime/Encoders.h) are MediaOut
// filters stacked on another MediaOut.
//
//   MediaIn in = MediaIn::fromFile("/var/spool/tmp/msg");   // null if absent
//   std::string text = in.readAll();
//
//   Buffer buf;
//   MediaOut out = MediaOut::toBuffer(buf);
//   out->write("abc", 3);
//   out->end();
//
// A stream object is not thread-safe; handles to it may be copied freely.

#include <cstddef>
#include <cstdio>
#include <ostream>
#include <string>
#include <utility>

#include "include2/VantroRefcounted"
#include "support/Buffer.h"

namespace Corvane {

class MediaInImpl : public RefImpl {
public:
    // Bytes read into buf (at most n), 0 at the end of the input, -1 on a
    // read error.
    virtual long read(void* buf, std::size_t n) = 0;
    // True once a read has met the end of the input.
    virtual bool eof() const = 0;
};

class MediaIn : public Ref<MediaInImpl> {
public:
    using Ref<MediaInImpl>::Ref;
    MediaIn() = default;
    MediaIn(const Ref<MediaInImpl>& other) : Ref<MediaInImpl>(other) {}

    // Takes the creator's count of a new stream object.
    static MediaIn adopt(MediaInImpl* impl) { return MediaIn(Ref<MediaInImpl>::adopt(impl)); }

    // A stream over the file at path; a null handle when it cannot be opened.
    static MediaIn fromFile(const std::string& path);
    // Streams over a private copy of the bytes.
    static MediaIn fromBuffer(const Buffer& buffer);
    static MediaIn fromString(const std::string& text);

    // Everything left in the stream ("" for a null handle; stops at the first
    // read error).
    std::string readAll();
};

// Reads a file through stdio buffering.
class FileMediaIn : public MediaInImpl {
public:
    // The file is opened here; isOpen() tells whether that worked (a stream
    // that is not open reads as empty).
    explicit FileMediaIn(const std::string& path);
    ~FileMediaIn() override;
    FileMediaIn(const FileMediaIn&) = delete;
    FileMediaIn& operator=(const FileMediaIn&) = delete;

    bool isOpen() const { return m_file != nullptr; }
    long read(void* buf, std::size_t n) override;
    bool eof() const override { return m_eof; }

private:
    std::FILE* m_file = nullptr;
    bool m_eof = false;
};

// Reads from its own copy of some bytes.
class MemoryMediaIn : public MediaInImpl {
public:
    explicit MemoryMediaIn(std::string bytes) : m_bytes(std::move(bytes)) {}

    long read(void* buf, std::size_t n) override;
    bool eof() const override { return m_eof; }

private:
    std::string m_bytes;
    std::size_t m_pos = 0;
    bool m_eof = false;
};

class MediaOutImpl : public RefImpl {
public:
    // Bytes accepted (n) or -1 on a write error.
    virtual long write(const void* data, std::size_t n) = 0;
    // Flushes. Encoders write their tail here and end the stream below them;
    // call it once, after the last write.
    virtual void end() {}

    long write(const std::string& text) { return write(text.data(), text.size()); }
};

class MediaOut : public Ref<MediaOutImpl> {
public:
    using Ref<MediaOutImpl>::Ref;
    MediaOut() = default;
    MediaOut(const Ref<MediaOutImpl>& other) : Ref<MediaOutImpl>(other) {}

    static MediaOut adopt(MediaOutImpl* impl) { return MediaOut(Ref<MediaOutImpl>::adopt(impl)); }

    // Creates or truncates the file at path; a null handle when it cannot be
    // opened. end() flushes and closes it (so does dropping the last handle).
    static MediaOut toFile(const std::string& path);
    // Appends to the caller's buffer or string, which must outlive every
    // handle to the stream.
    static MediaOut toBuffer(Buffer& buffer);
    static MediaOut toString(std::string& text);
    // Writes to the caller's stream, which must outlive the handles.
    static MediaOut toStream(std::ostream& stream);
};

// Writes to a C++ stream owned by the caller; end() flushes it.
class FileMediaOut : public MediaOutImpl {
public:
    explicit FileMediaOut(std::ostream& stream) : m_stream(stream) {}

    long write(const void* data, std::size_t n) override;
    void end() override;

private:
    std::ostream& m_stream;
};

// A temporary file made with mkstemp in a folder (by default the spool's
// "tmp" folder, created when missing), removed again when the object goes
// away unless keep() was called.
//
//   TempFile tmp;                       // <spool>/tmp/zemail.XXXXXX
//   if (!tmp.ok()) { ...could not create... }
//   ::write(tmp.fd(), data, len);
//   tmp.close();                        // the file stays until destruction
class TempFile {
public:
    explicit TempFile(const std::string& folder = std::string(),
                      const std::string& prefix = "zemail");
    ~TempFile();
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    // "" and -1 when the file could not be created.
    const std::string& path() const { return m_path; }
    int fd() const { return m_fd; }
    bool ok() const { return !m_path.empty(); }

    // Closes the descriptor (the file stays). Safe to call twice.
    void close();
    // Leaves the file in place on destruction.
    void keep() { m_keep = true; }

private:
    std::string m_path;
    int m_fd = -1;
    bool m_keep = false;
};

}  // namespace Corvane

#endif
