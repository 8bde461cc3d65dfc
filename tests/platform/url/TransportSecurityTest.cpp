// TLS of URLConnection against a real server with certificates made for the test.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "platform/url/URLConnection.h"
#include "tests/platform/url/ConnectionRecorder.h"
#include "tests/support/TemporaryDirectory.h"

using namespace velkor::NS;
using velkor::test::exchange;

namespace {

/// A certificate authority, a certificate of it for 127.0.0.1 only, and an HTTPS server that shows it and answers with files.
class SecureServer {
public:
    SecureServer() {
        run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=authority -keyout ca.key "
            "-out ca.pem");
        run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=stranger -keyout no.key -out "
            "no.pem");
        run("openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=server -addext subjectAltName=IP:127.0.0.1 "
            "-keyout server.key -out server.csr");
        run("openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -copy_extensions copy -out "
            "server.pem");
        std::ofstream(m_directory / "page") << "HTTP/1.0 200 OK\r\n\r\npage";
        start();
    }
    ~SecureServer() {
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
    }
    SecureServer(const SecureServer&) = delete;
    SecureServer& operator=(const SecureServer&) = delete;

    std::string url(const std::string& host) const { return "https://" + host + ":" + m_port + "/page"; }
    /// The address of an answer that is this, head and body.
    std::string urlOf(const std::string& answer) const {
        std::ofstream(m_directory / "answer") << answer;
        return "https://127.0.0.1:" + m_port + "/answer";
    }
    std::string file(const std::string& name) const { return m_directory / name; }

private:
    void run(const std::string& command) const {
        const std::string line = "cd '" + m_directory.path().string() + "' && " + command + " 2>log";
        if (std::system(line.c_str()) != 0) throw std::runtime_error(command);
    }

    /// The server takes a free port and names it on its output.
    void start() {
        int ends[2];
        if (pipe(ends) != 0) throw std::runtime_error("no pipe");
        m_process = fork();
        if (m_process == 0) {
            dup2(ends[1], STDOUT_FILENO);
            if (!freopen("/dev/null", "w", stderr)) _exit(1);  // it reports every refusal
            if (chdir(m_directory.path().c_str()) != 0) _exit(1);
            execlp("openssl", "openssl", "s_server", "-accept", "127.0.0.1:0", "-cert", "server.pem", "-key", "server.key",
                   "-HTTP", nullptr);
            _exit(1);
        }
        close(ends[1]);
        std::string output;
        for (char c; read(ends[0], &c, 1) == 1 && !(c == '\n' && output.find("ACCEPT") != std::string::npos);) output += c;
        close(ends[0]);
        m_port = output.substr(output.rfind(':') + 1);
        if (m_port.empty() || m_port == "0") throw std::runtime_error("the server tells no port: " + output);
    }

    const velkor::test::TemporaryDirectory m_directory;
    std::string m_port;
    pid_t m_process = -1;
};

}  // namespace

TEST(TransportSecurityTest, OnlyATrustedCertificateForTheHostPasses) {
    SecureServer server;
    URLConnection::setCertificateAuthorityFile("");
    EXPECT_EQ(exchange(server.url("127.0.0.1")).code(), URLError::certificateUntrusted) << "an authority nobody knows";
    URLConnection::setCertificateAuthorityFile(server.file("no.pem"));
    EXPECT_EQ(exchange(server.url("127.0.0.1")).code(), URLError::certificateUntrusted) << "another authority";
    URLConnection::setCertificateAuthorityFile(server.file("ca.pem"));
    auto good = exchange(server.url("127.0.0.1"));
    EXPECT_EQ(good.code(), 0) << (good.error ? good.error->description() : "");
    EXPECT_EQ(good.status(), 200);
    const auto redirected = [&](const std::string& address) {
        return exchange(server.urlOf("HTTP/1.0 307 Away\r\nLocation: " + address + "\r\n\r\n"));
    };
    EXPECT_EQ(redirected(server.url("127.0.0.1")).body, "page");
    EXPECT_EQ(redirected("http://127.0.0.1:1/").code(), URLError::unsupportedURL) << "what was secret stays so";
    EXPECT_EQ(exchange(server.url("localhost")).code(), URLError::certificateUntrusted) << "a name that the certificate lacks";
    URLConnection::setCertificateAuthorityFile(server.file("missing.pem"));
    EXPECT_EQ(exchange(server.url("127.0.0.1")).code(), URLError::secureConnectionFailed);
    URLConnection::setCertificateAuthorityFile("");
}
