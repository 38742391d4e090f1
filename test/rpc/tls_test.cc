// Calls over TLS: both sides are streams of Boost.Asio that are handed over behind their handshakes. The library itself
// knows nothing of OpenSSL.

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include "rpc/asio_channel.h"
#include "rpc/client.h"
#include "test/rpc/rpc_fixture.h"

using namespace VORN;
using namespace vorn_test;
using namespace std::chrono_literals;
namespace ssl = boost::asio::ssl;

namespace {

using Socket = boost::asio::local::stream_protocol::socket;
using TlsStream = ssl::stream<Socket>;

// A key and a certificate that it has signed itself.
class Identity {
 public:
  Identity() : key_(EVP_RSA_gen(2048)), certificate_(X509_new()) {
    ASN1_INTEGER_set(X509_get_serialNumber(certificate_), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate_), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate_), 3600);
    X509_set_pubkey(certificate_, key_);
    X509_NAME* name = X509_get_subject_name(certificate_);
    const auto* text = reinterpret_cast<const unsigned char*>("vorn");
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, text, -1, -1, 0);
    X509_set_issuer_name(certificate_, name);
    X509_sign(certificate_, key_, EVP_sha256());
  }
  ~Identity() {
    X509_free(certificate_);
    EVP_PKEY_free(key_);
  }
  Identity(const Identity&) = delete;
  Identity& operator=(const Identity&) = delete;

  void use_in(ssl::context& context) const {
    SSL_CTX_use_certificate(context.native_handle(), certificate_);
    SSL_CTX_use_PrivateKey(context.native_handle(), key_);
  }
  void trust_in(ssl::context& context) const {
    context.set_verify_mode(ssl::verify_peer);
    X509_STORE_add_cert(SSL_CTX_get_cert_store(context.native_handle()), certificate_);
  }

 private:
  EVP_PKEY* key_;
  X509* certificate_;
};

class RpcTls : public testing::Test {
 protected:
  RpcTls() { identity_.use_in(server_context_); }

  // Connects a client to the server by a pair of sockets, with a handshake on both.
  RPC::Client::MakeConnector connector() {
    return [this](const boost::asio::any_io_executor& executor) -> RPC::Connector {
      return [this, executor](std::chrono::steady_clock::time_point, const RPC::Connected& connected) {
        const auto here = std::make_shared<TlsStream>(Socket(executor), client_context_);
        const auto there = std::make_shared<TlsStream>(Socket(server_.executor()), server_context_);
        boost::asio::local::connect_pair(here->next_layer(), there->next_layer());
        boost::asio::post(server_.executor(), [this, there] {
          there->async_handshake(ssl::stream_base::server, [this, there](const boost::system::error_code& error) {
            if (!error) server_.server().serve(RPC::make_channel(server_.executor(), std::move(*there), "over TLS"));
          });
        });
        here->async_handshake(ssl::stream_base::client,
                              [executor, here, connected](const boost::system::error_code& error) {
                                if (error) return connected(error, nullptr);
                                connected(error, RPC::make_channel(executor, std::move(*here), "over TLS"));
                              });
      };
    };
  }

  Identity identity_;
  ssl::context server_context_{ssl::context::tls_server};
  ssl::context client_context_{ssl::context::tls_client};
  RunningServer server_{test_methods(), RPC::ServerOptions(), ""};
};

}  // namespace

TEST_F(RpcTls, CarriesCalls) {
  identity_.trust_in(client_context_);
  RPC::Client client(connector());
  EXPECT_EQ(client.call("add", {20, 22}), VObject(42));
  // More than TLS puts into one record, and than the kernel takes at once.
  const std::string large(900000, 'x');
  EXPECT_EQ(client.call("echo", {large}), VObject(large));
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&] {
      for (int n = 0; n < 50; ++n) EXPECT_EQ(client.call("later", {n}), VObject(n));
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(outcome_of([&] { return client.call("sleep", {300}, {50ms, false}); }), "TimedOut: no answer in time");
  client.close();
  EXPECT_EQ(outcome_of([&] { return client.call("add", {1, 2}); }), "ConnectionLost: the client is closed");
}

TEST_F(RpcTls, RefusesAnUnknownCertificate) {
  client_context_.set_verify_mode(ssl::verify_peer);
  RPC::Client client(connector());
  EXPECT_EQ(outcome_of([&] {
              return client.call("add", {20, 22}, {2s, false});
            }).find("ConnectionLost: cannot connect: certificate verify failed"),
            0U);
}

TEST_F(RpcTls, EndsWithTheServer) {
  RPC::Client client(connector());
  EXPECT_EQ(client.call("add", {20, 22}), VObject(42));
  server_.end();
  EXPECT_EQ(outcome_of([&] { return client.call("add", {20, 22}, {300ms, false}); }).find("ConnectionLost: "), 0U);
}
