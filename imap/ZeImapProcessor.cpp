#include "imap/ZeImapProcessor.h"

#include <cstdio>

#include "imap/ZeImapMime.h"
#include "imap/ZeImapResponse.h"
#include "support/Buffer.h"
#include "support/Debug.h"
#include "support/Media.h"
#include "support/mime/ContentDisposition.h"
#include "support/mime/ContentType.h"
#include "support/mime/Encoders.h"
#include "support/mime/Header.h"

namespace {

const char* const kUnit = "ZeImapProcessor";

int unsupported() {
    basepp::dbg::debug(kUnit, __LINE__, "process",
                       ">>>>> UNSUPPORTED! UNSUPPORTED! UNSUPPORTED! UNSUPPORTED! <<<<<");
    return 0;
}

}  // namespace

int ZeImapProcessor::process(const ZeImapResponseList&) {
    return unsupported();
}
int ZeImapProcessor::process(const ZeImapResponseSelect&) {
    return unsupported();
}
int ZeImapProcessor::process(const ZeImapResponseStatus&) {
    return unsupported();
}
int ZeImapProcessor::process(const ZeImapResponseNoop&) {
    return unsupported();
}
int ZeImapProcessor::process(const ZeImapResponseUIDFetch&) {
    return unsupported();
}
int ZeImapProcessor::process(const ZeImapResponseAppend&) {
    return unsupported();
}
int ZeImapProcessor::process(const ZeImapResponseGetQuota&) {
    return unsupported();
}

int ZeImapProcessor::process(const ZeImapResponseRef& response) {
    const ZeImapResponse* r = response.get();
    if (r == nullptr) {
        return 0;
    }
    if (auto list = dynamic_cast<const ZeImapResponseList*>(r)) {
        return process(*list);
    }
    if (auto select = dynamic_cast<const ZeImapResponseSelect*>(r)) {
        return process(*select);
    }
    if (auto status = dynamic_cast<const ZeImapResponseStatus*>(r)) {
        return process(*status);
    }
    if (auto noop = dynamic_cast<const ZeImapResponseNoop*>(r)) {
        return process(*noop);
    }
    if (auto fetch = dynamic_cast<const ZeImapResponseUIDFetch*>(r)) {
        return process(*fetch);
    }
    if (auto append = dynamic_cast<const ZeImapResponseAppend*>(r)) {
        return process(*append);
    }
    if (auto quota = dynamic_cast<const ZeImapResponseGetQuota*>(r)) {
        return process(*quota);
    }
    return 0;
}

// ---------------------------------------------------------------- APPEND

int ZeImapProcessAppend::process(const ZeImapResponseAppend& response) {
    if (m_done) {
        return 0;
    }
    m_done = true;
    ZeImapFeeder& feeder = response.feeder();
    if (std::FILE* file = std::fopen(m_path.c_str(), "rb")) {
        Corvane::Buffer piece;
        piece.reserve(1024);
        std::size_t got;
        while ((got = std::fread(piece.data(), 1, 1024, file)) > 0) {
            piece.length(got);
            feeder.write(piece);
        }
        std::fclose(file);
    } else {
        basepp::dbg::debug(kUnit, __LINE__, "process", "cannot open %s for APPEND", m_path.c_str());
    }
    feeder.write(Corvane::Buffer(std::string("\r\n")));
    return 0;
}

// ---------------------------------------------------------------- body section

ZeImapFetchBodySection::ZeImapFetchBodySection(std::ostream* out)
    : m_node(new ZeImapMimeRef()), m_out(out) {}

ZeImapFetchBodySection::~ZeImapFetchBodySection() = default;

const ZeImapMimeRef& ZeImapFetchBodySection::node() const {
    return *m_node;
}

int ZeImapFetchBodySection::process(const ZeImapResponseUIDFetch& response) {
    const ZeImapResponseUIDFetch::data_t& record = response.data();
    if (record.mime_headers.length() > 10) {
        Corvane::HeaderContainer headers;
        headers.parse(record.mime_headers.data(), record.mime_headers.length());
        *m_node = ZeImapMimeRef::create(Corvane::ContentType::NONE,
                                        Corvane::ContentType::UNKNOWN_SUBTYPE);
        ZeImapMime& node = **m_node;
        if (const Corvane::Header* h = headers.find("Content-Transfer-Encoding")) {
            m_encoding = Corvane::stringAsEncoding(h->value());
            node.content_type().encoding = m_encoding;
        }
        if (const Corvane::Header* h = headers.find("Content-Type")) {
            const Corvane::ContentType type(h->value());
            ZeContentType& ct = node.content_type();
            ct.media = type.mediaType();
            ct.subtype = type.subType();
            ct.charset = type.charset();
            ct.name = type.utf8name();
            ct.type_name = type.typeName();
            ct.subtype_name = type.subTypeName();
        }
        if (const Corvane::Header* h = headers.find("Content-Disposition")) {
            const Corvane::ContentDisposition disposition(h->value());
            node.disposition().type = disposition.type();
            node.disposition().filename = disposition.utf8fileName();
        }
    }
    if (m_out != nullptr && record.literal_size > 0) {
        Corvane::MediaOut decoder = Corvane::get_decoder(
            m_encoding, Corvane::MediaOut::adopt(new Corvane::FileMediaOut(*m_out)));
        Corvane::Buffer piece;
        piece.reserve(2048);
        unsigned long remaining = static_cast<unsigned long>(record.literal_size);
        while (remaining > 0) {
            const long got = response.retrieve_line(piece, remaining);
            if (got <= 0) {
                break;
            }
            decoder->write(piece.data(), static_cast<std::size_t>(got));
        }
        decoder->end();
    }
    return 0;
}
