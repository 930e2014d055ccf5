#include "imap/ZeImapProcessor.h"

#include <cstdio>

#include "imap/ZeImapMime.h"
#include "imap/ZeImapResponse.h"
#include "model/ZeMFolder.h"
#include "model/ZeMUser.h"
#include "stores/ZeMailImap.h"
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
    if (m_in_memory) {
        feeder.write(m_bytes);
    } else if (std::FILE* file = std::fopen(m_path.c_str(), "rb")) {
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

ZeImapFetchBodySection::ZeImapFetchBodySection(std::ostream* out, Corvane::ContentEncoding encoding)
    : m_node(new ZeImapMimeRef()), m_out(out), m_encoding(encoding) {}

ZeImapFetchBodySection::~ZeImapFetchBodySection() = default;

const ZeImapMimeRef& ZeImapFetchBodySection::node() const {
    return *m_node;
}

int ZeImapFetchBodySection::process(const ZeImapResponseUIDFetch& response) {
    const ZeImapResponseUIDFetch::data_t& record = response.data();
    if (record.mime_headers.length() > 10) {
        bool has_encoding = false;
        *m_node = ze_mime_node_from_header(record.mime_headers.data(), record.mime_headers.length(),
                                           &has_encoding);
        if (has_encoding) {
            m_encoding = (*m_node)->content_type().encoding;
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

// ---------------------------------------------------------------- model feeders

int ZeImapProcessList::process(const ZeImapResponseList& response) {
    if (m_user == nullptr) {
        return 0;
    }
    // A name the model refuses gives a null folder, which add_folder ignores.
    // The folder's parent stays empty: the hierarchy is in the names.
    m_user->add_folder(ZeMFolderRef::create(m_user->id(), response.name(), 0));
    return 0;
}

int ZeImapProcessStatus::process(const ZeImapResponseStatus& response) {
    if (m_folder != nullptr) {
        m_folder->set(response.messages(), response.recent(), response.uidnext(), response.unseen(),
                      response.size());
    }
    return 0;
}

ZeImapFetchHeaders::ZeImapFetchHeaders(ZeMailBoxImap* mailbox)
    : m_mailbox(mailbox), m_message(new ZeMessageRef()) {}

ZeImapFetchHeaders::~ZeImapFetchHeaders() = default;

const ZeMessageRef& ZeImapFetchHeaders::message() const {
    return *m_message;
}

int ZeImapFetchHeaders::process(const ZeImapResponseUIDFetch& response) {
    // An answer that is merely in progress (a header literal announced as a
    // body literal, RFC822.HEADER or BODY[HEADER], and left unread) makes a
    // message with empty headers. One the server did not finish (it went
    // away in the middle of it, or its item list stops without a literal to
    // go on with) is dropped: a message from it could carry half its data.
    if (response.cut_short() || (response.in_fetch() && response.data().literal_size < 0)) {
        return 0;
    }
    const ZeImapResponseUIDFetch::data_t& record = response.data();
    ZeMessageFlags flags(0, ZeMessageFlags::REPLACE);
    flags.set(record.flags);
    if (flags.test(ZeMessageFlags::DELETED)) {
        return 0;
    }
    Corvane::HeaderContainer headers;
    Corvane::MediaIn in = Corvane::MediaIn::fromBuffer(record.headers);
    headers.parse(in);
    auto* message =
        new ZeMessageImap(record.uid, record.fname, headers, record.received,
                          record.size > 0 ? static_cast<unsigned long>(record.size) : 0);
    ZeMessageRef handle(message);
    ZeMessageFlags own(0, ZeMessageFlags::REPLACE);
    own.set(record.flags);
    handle->flags(own);
    if (m_mailbox != nullptr) {
        m_mailbox->add_message(handle);
    } else {
        *m_message = handle;
    }
    return 0;
}
