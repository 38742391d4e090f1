# frozen_string_literal: true

begin
  require "openssl"
rescue LoadError
  nil # tests that need it are skipped
end

# A key and a certificate of its own for "localhost", for tests of TLS.
module Certificate
  module_function

  def available?
    defined?(OpenSSL::SSL)
  end

  def make
    key = OpenSSL::PKey::RSA.new(2048)
    certificate = OpenSSL::X509::Certificate.new
    certificate.version = 2
    certificate.serial = 1
    certificate.subject = certificate.issuer = OpenSSL::X509::Name.parse("/CN=localhost")
    certificate.public_key = key.public_key
    certificate.not_before = Time.now - 60
    certificate.not_after = Time.now + 600
    certificate.sign(key, OpenSSL::Digest.new("SHA256"))
    [key, certificate]
  end

  # What a server presents.
  def server_context(key, certificate)
    OpenSSL::SSL::SSLContext.new.tap do |context|
      context.key = key
      context.cert = certificate
    end
  end

  # A client that trusts this certificate only.
  def client_context(certificate)
    OpenSSL::SSL::SSLContext.new.tap do |context|
      context.verify_mode = OpenSSL::SSL::VERIFY_PEER
      context.cert_store = OpenSSL::X509::Store.new.tap { |store| store.add_cert(certificate) }
    end
  end
end
