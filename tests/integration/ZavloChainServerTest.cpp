#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/peers/ZavloChainServer.hpp"
#include "ZavloTcpClient.hpp"

namespace {

std::string libraryRequest(const std::string& target, const std::string& host) {
  return "GET " + target + " HTTP/1.1\r\nHost: " + host +
         "\r\nAccept: text/html,application/json,application/xhtml+xml,application/xml,*/*"
         "\r\nUser-Agent: ZavloAuthenticationSDK/1.0\r\nConnection: close\r\n\r\n";
}

struct Answer {
  std::string firstRead;     // what a client making one read sees
  bool closedAfter = false;  // the server closed the connection after the answer
};

// Sends the request on an open connection, reads once like the library, then waits for the close.
Answer sendAndReadOnce(int fd, const std::string& request) {
  Answer answer;
  if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) return answer;
  std::string buffer(65536, '\0');
  const auto received = recv(fd, buffer.data(), buffer.size(), 0);
  if (received > 0) answer.firstRead.assign(buffer.data(), static_cast<std::size_t>(received));
  answer.closedAfter = recv(fd, buffer.data(), buffer.size(), 0) == 0;
  close(fd);
  return answer;
}

Answer ask(const ZavloChainServer& server, const std::string& target, const std::string& address = "127.0.0.1") {
  const int fd = zavloConnectTcp(address, server.port());
  if (fd < 0) return {};
  return sendAndReadOnce(fd, libraryRequest(target, address + ":" + std::to_string(server.port())));
}

std::string header(const std::string& response, const std::string& name) {
  const auto at = response.find("\r\n" + name + ": ");
  if (at == std::string::npos || at > response.find("\r\n\r\n")) return "<absent>";
  const auto start = at + name.size() + 4;
  return response.substr(start, response.find("\r\n", start) - start);
}

std::string body(const std::string& response) {
  const auto end = response.find("\r\n\r\n");
  return end == std::string::npos ? "" : response.substr(end + 4);
}

}  // namespace

TEST(ZavloChainServer, AnswersEveryHopOfAChainInOneReadThenCloses) {
  ZavloChainServer relative;
  const auto first = ask(relative, "/chain/2/sna?x=1&y=a%20b");
  EXPECT_TRUE(first.firstRead.starts_with("HTTP/1.1 302 Found\r\n")) << first.firstRead;
  EXPECT_EQ(header(first.firstRead, "Location"), "/chain/1/sna?x=1&y=a%20b");
  EXPECT_EQ(header(first.firstRead, "Content-Length"), "0");
  EXPECT_TRUE(first.closedAfter);

  const auto last = ask(relative, "/chain/0/sna");
  EXPECT_TRUE(last.firstRead.starts_with("HTTP/1.1 200 OK\r\n")) << last.firstRead;
  EXPECT_EQ(header(last.firstRead, "Content-Length"), std::to_string(body(last.firstRead).size()));
  EXPECT_EQ(nlohmann::json::parse(body(last.firstRead)), (nlohmann::json{{"snaToken", relative.token()}}));
  EXPECT_TRUE(last.closedAfter);

  ZavloChainServerOptions options;
  options.absoluteLocation = true;
  options.token = "other";
  ZavloChainServer absolute(options);
  const auto port = std::to_string(absolute.port());
  EXPECT_EQ(header(ask(absolute, "/chain/7").firstRead, "Location"), "http://127.0.0.1:" + port + "/chain/6");
  EXPECT_EQ(absolute.chainUrl(3), "http://127.0.0.1:" + port + "/chain/2/sna");
  EXPECT_THROW((void)absolute.chainUrl(0), std::invalid_argument);
  EXPECT_NE(body(ask(absolute, "/chain/0/").firstRead).find("\"other\""), std::string::npos);

  for (const auto* target : {"/", "/chain/", "/chain/x/sna", "/chain/-1", "/chain/1234567890"}) {
    const auto answer = ask(relative, target).firstRead;
    EXPECT_EQ(answer.substr(9, 3), "404") << target;
    EXPECT_TRUE(nlohmann::json::accept(body(answer))) << target;
  }
  for (const auto& [request, status] :
       {std::pair{"POST /chain/0 HTTP/1.1\r\nHost: h\r\n\r\n", "405"}, std::pair{"hello\r\n\r\n", "400"}}) {
    const int fd = zavloConnectTcp("127.0.0.1", relative.port());
    ASSERT_GE(fd, 0);
    EXPECT_EQ(sendAndReadOnce(fd, request).firstRead.substr(9, 3), status) << request;
  }
  EXPECT_EQ(relative.requestsServed(), 9U);
  const auto recorded = relative.recentRequests();
  ASSERT_EQ(recorded.size(), 9U);
  EXPECT_EQ(recorded.front(),
            libraryRequest("/chain/2/sna?x=1&y=a%20b", "127.0.0.1:" + std::to_string(relative.port())));
}

TEST(ZavloChainServer, ServesManyOpenConnectionsAtOnceAndListensOnIpv6) {
  ZavloChainServer server;
  // Every connection is open before any request is sent, and they are answered in reverse order:
  // a server serving one connection at a time would never answer the last-opened one first.
  std::vector<int> connections;
  for (int i = 0; i < 40; ++i) {
    const int fd = zavloConnectTcp("127.0.0.1", server.port());
    ASSERT_GE(fd, 0);
    connections.push_back(fd);
  }
  for (auto fd = connections.rbegin(); fd != connections.rend(); ++fd) {
    EXPECT_TRUE(sendAndReadOnce(*fd, libraryRequest("/chain/1/a", "h")).firstRead.starts_with("HTTP/1.1 302"));
  }
  EXPECT_EQ(server.requestsServed(), 40U);

  ZavloChainServerOptions options;
  options.bindAddress = "::1";
  options.absoluteLocation = true;
  ZavloChainServer ipv6(options);
  const auto base = "http://[::1]:" + std::to_string(ipv6.port());
  EXPECT_EQ(ipv6.baseUrl(), base);
  EXPECT_EQ(header(ask(ipv6, "/chain/1/a", "::1").firstRead, "Location"), base + "/chain/0/a");
}

TEST(ZavloChainServer, FollowsATlsChainWhoseCertificateOnlyItsOwnAnchorTrustsAndCountsResumptions) {
  ZavloChainServerOptions options;
  options.tls = true;
  ZavloChainServer server(options);
  ASSERT_TRUE(server.trustAnchorPem().starts_with("-----BEGIN CERTIFICATE-----"));
  EXPECT_EQ(server.chainUrl(2), "https://localhost:" + std::to_string(server.port()) + "/chain/1/sna");

  SSL_CTX* context = SSL_CTX_new(TLS_client_method());
  ASSERT_NE(context, nullptr);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  SSL_SESSION* session = nullptr;  // the latest one, offered by hops that resume
  const auto hop = [&](const std::string& target, bool resume = false) {
    const int fd = zavloConnectTcp("127.0.0.1", server.port());
    SSL* ssl = SSL_new(context);
    SSL_set_fd(ssl, fd);
    SSL_set_tlsext_host_name(ssl, "localhost");
    SSL_set1_host(ssl, "localhost");
    if (resume && session != nullptr) SSL_set_session(ssl, session);
    std::string answer;
    if (SSL_connect(ssl) == 1) {
      const auto request = libraryRequest(target, "localhost:" + std::to_string(server.port()));
      std::string buffer(65536, '\0');
      if (SSL_write(ssl, request.data(), static_cast<int>(request.size())) > 0) {
        const int received = SSL_read(ssl, buffer.data(), static_cast<int>(buffer.size()));
        if (received > 0) answer.assign(buffer.data(), static_cast<std::size_t>(received));
      }
      SSL_SESSION_free(session);
      session = SSL_get1_session(ssl);  // after the read: the TLS 1.3 ticket came with the answer
    }
    ERR_clear_error();
    SSL_set_quiet_shutdown(ssl, 1);  // keeps the session resumable
    SSL_shutdown(ssl);
    SSL_free(ssl);
    close(fd);
    return answer;
  };

  EXPECT_EQ(hop("/chain/1/sna"), "") << "verified without the server's CA";

  BIO* bio = BIO_new_mem_buf(server.trustAnchorPem().data(), static_cast<int>(server.trustAnchorPem().size()));
  X509* anchor = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  ASSERT_NE(anchor, nullptr);
  X509_STORE_add_cert(SSL_CTX_get_cert_store(context), anchor);
  X509_free(anchor);

  const auto redirect = hop("/chain/1/sna");
  EXPECT_TRUE(redirect.starts_with("HTTP/1.1 302 Found\r\n")) << redirect;
  const auto final = hop(header(redirect, "Location"));
  EXPECT_EQ(nlohmann::json::parse(body(final)).value("snaToken", ""), server.token()) << final;
  EXPECT_EQ(server.tlsHandshakes(), 2U) << "the refused handshake never completed";
  EXPECT_EQ(server.resumedTlsHandshakes(), 0U);

  EXPECT_TRUE(hop("/chain/0/sna", true).starts_with("HTTP/1.1 200 OK\r\n"));
  EXPECT_EQ(server.tlsHandshakes(), 3U);
  EXPECT_EQ(server.resumedTlsHandshakes(), 1U);
  SSL_SESSION_free(session);
  SSL_CTX_free(context);
}
