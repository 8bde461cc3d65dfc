#include "platform/url/URLConnection.h"

#include <utility>

#include "platform/url/Transfer.h"

namespace velkor::NS {

URLConnection::URLConnection(const URLRequest& request, URLConnectionDelegate* delegate)
    : m_transfer(std::make_shared<detail::Transfer>(*this, request, delegate)) {}

URLConnection::~URLConnection() { m_transfer->cancel(); }

void URLConnection::scheduleInRunLoop(RunLoop& loop) { m_transfer->scheduleIn(loop); }

void URLConnection::start() { m_transfer->start(); }

void URLConnection::cancel() { m_transfer->cancel(); }

const URLRequest& URLConnection::request() const noexcept { return m_transfer->request(); }

void URLConnection::setMaximumResponseSize(std::uint64_t bytes) { m_transfer->setMaximumSize(bytes); }

void URLConnection::setCertificateAuthorityFile(std::string path) { detail::setCertificateAuthorityFile(std::move(path)); }

}  // namespace velkor::NS
