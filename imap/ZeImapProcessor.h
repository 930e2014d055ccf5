#ifndef ZEMAIL_IMAP_ZE_IMAP_PROCESSOR_H
#define ZEMAIL_IMAP_ZE_IMAP_PROCESSOR_H

#include <memory>
#include <ostream>
#include <string>

#include "imap/ZeImapMimeFwd.h"
#include "include2/VantroRefcounted"
#include "support/Buffer.h"
#include "support/mime/ContentEncoding.h"

class ZeImapResponseList;
class ZeImapResponseSelect;
class ZeImapResponseStatus;
class ZeImapResponseNoop;
class ZeImapResponseUIDFetch;
class ZeImapResponseAppend;
class ZeImapResponseGetQuota;
class ZeImapResponseRef;
class ZeMUser;
class ZeMFolderImap;
class ZeMailBoxImap;
class ZeMessageRef;

// A caller's consumer of parsed responses, attached to a command before it is
// sent. The request hands it every untagged response the command's response
// object accepted; a processor overrides the kinds it expects. The other kinds
// log an "UNSUPPORTED" banner and are ignored. A processor never fails an
// exchange: the completion code is the server's.
class ZeImapProcessor : public Corvane::RefImpl {
public:
    ~ZeImapProcessor() override = default;

    virtual int process(const ZeImapResponseList& response);
    virtual int process(const ZeImapResponseSelect& response);
    virtual int process(const ZeImapResponseStatus& response);
    virtual int process(const ZeImapResponseNoop& response);
    virtual int process(const ZeImapResponseUIDFetch& response);
    virtual int process(const ZeImapResponseAppend& response);
    virtual int process(const ZeImapResponseGetQuota& response);

    // Dispatches on the response's type (List, Select, Status, Noop,
    // UIDFetch, Append, GetQuota); 0 for an empty handle or another type.
    int process(const ZeImapResponseRef& response);
};

class ZeImapProcessorRef : public Corvane::Ref<ZeImapProcessor> {
public:
    using Corvane::Ref<ZeImapProcessor>::Ref;
    ZeImapProcessorRef() = default;
    ZeImapProcessorRef(const Corvane::Ref<ZeImapProcessor>& other)  // NOLINT: same handle
        : Corvane::Ref<ZeImapProcessor>(other) {}

    // A handle adopting a newly made processor.
    template <class P, class... Args>
    static ZeImapProcessorRef make(Args&&... args) {
        return ZeImapProcessorRef(
            Corvane::Ref<ZeImapProcessor>::adopt(new P(std::forward<Args>(args)...)));
    }
};

// Processors that accept their own kind silently, so that a command can carry
// one without logging every answer as unsupported.
class ZeImapListProcessor : public ZeImapProcessor {
public:
    using ZeImapProcessor::process;
    int process(const ZeImapResponseList&) override { return 0; }
};
class ZeImapSelectProcessor : public ZeImapProcessor {
public:
    using ZeImapProcessor::process;
    int process(const ZeImapResponseSelect&) override { return 0; }
};
class ZeImapStatusProcessor : public ZeImapProcessor {
public:
    using ZeImapProcessor::process;
    int process(const ZeImapResponseStatus&) override { return 0; }
};
class ZeImapNoopProcessor : public ZeImapProcessor {
public:
    using ZeImapProcessor::process;
    int process(const ZeImapResponseNoop&) override { return 0; }
};
class ZeImapAppendProcessor : public ZeImapProcessor {
public:
    using ZeImapProcessor::process;
    int process(const ZeImapResponseAppend&) override { return 0; }
};
class ZeImapGetQuotaProcessor : public ZeImapProcessor {
public:
    using ZeImapProcessor::process;
    int process(const ZeImapResponseGetQuota&) override { return 0; }
};

// Sends the message of an APPEND when the server asks for the literal ("+"):
// the file in 1024-byte pieces (or the bytes given), then the "\r\n" that
// ends the command line. The caller announced the size in the command's
// arguments, so the file must not change meanwhile: the IMAP mailbox hands
// over a private copy or the bytes themselves. Later continuation lines of
// the same APPEND send nothing.
class ZeImapProcessAppend : public ZeImapProcessor {
public:
    explicit ZeImapProcessAppend(std::string path) : m_path(std::move(path)) {}
    explicit ZeImapProcessAppend(Corvane::Buffer bytes)
        : m_bytes(std::move(bytes)), m_in_memory(true) {}
    using ZeImapProcessor::process;
    int process(const ZeImapResponseAppend& response) override;
    bool done() const { return m_done; }

private:
    bool m_done = false;
    std::string m_path;
    Corvane::Buffer m_bytes;
    bool m_in_memory = false;
};

// Turns a fetched body section into content: the section's MIME headers (when
// fetched) describe a new node; the literal is decoded by the section's
// Content-Transfer-Encoding into the output stream, when there is one.
class ZeImapFetchBodySection : public ZeImapProcessor {
public:
    // out may be null: then only the node is described. encoding decodes the
    // literal when the answer brings no MIME header of the section (the
    // caller may know it from the message's structure).
    explicit ZeImapFetchBodySection(std::ostream* out = nullptr,
                                    Corvane::ContentEncoding encoding = Corvane::ENCODING_NONE);
    ~ZeImapFetchBodySection() override;
    using ZeImapProcessor::process;
    int process(const ZeImapResponseUIDFetch& response) override;

    const ZeImapMimeRef& node() const;
    Corvane::ContentEncoding encoding() const { return m_encoding; }

private:
    std::unique_ptr<ZeImapMimeRef> m_node;
    std::ostream* m_out;
    Corvane::ContentEncoding m_encoding = Corvane::ENCODING_NONE;
};

// Adds every folder of a LIST answer to the user (the user is not owned and
// must outlive the command).
class ZeImapProcessList : public ZeImapProcessor {
public:
    explicit ZeImapProcessList(ZeMUser* user) : m_user(user) {}
    using ZeImapProcessor::process;
    int process(const ZeImapResponseList& response) override;

private:
    ZeMUser* m_user;
};

// Hands the counters of a STATUS answer to the folder (not owned).
class ZeImapProcessStatus : public ZeImapProcessor {
public:
    explicit ZeImapProcessStatus(ZeMFolderImap* folder) : m_folder(folder) {}
    using ZeImapProcessor::process;
    int process(const ZeImapResponseStatus& response) override;

private:
    ZeMFolderImap* m_folder;
};

// Turns each FETCH answer of envelope data (UID, X-FNAME, FLAGS, size,
// arrival time, a header block) into a message. Messages marked \Deleted are
// dropped, and so is an answer the server broke off. With a mailbox (not owned) each message is
// added to it; without one the processor keeps the last message itself.
class ZeImapFetchHeaders : public ZeImapProcessor {
public:
    explicit ZeImapFetchHeaders(ZeMailBoxImap* mailbox = nullptr);
    ~ZeImapFetchHeaders() override;
    using ZeImapProcessor::process;
    int process(const ZeImapResponseUIDFetch& response) override;

    // The last message built when there is no mailbox (else null).
    const ZeMessageRef& message() const;

private:
    ZeMailBoxImap* m_mailbox;
    std::unique_ptr<ZeMessageRef> m_message;
};

#endif
