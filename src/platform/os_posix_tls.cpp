// os_posix_tls.cpp: TLS through OpenSSL 3.
//
// OpenSSL's own socket BIO writes with write(), which raises SIGPIPE at a
// closed peer and knows nothing of the fault seam, so records go through a
// BIO of ours over os::recv and os::send. The Winsock error of a failed
// read or write is kept in the channel, as OpenSSL may touch errno after.

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <cstdio>
#include <new>

#include "platform/os.h"
#include "platform/os_tls.h"

namespace qbsmtp::os {

struct TlsContext {
    SSL_CTX* ssl_context;
    bool verify;
};

struct TlsChannel {
    SSL* ssl = nullptr;
    SOCKET socket = INVALID_SOCKET;
    int socket_error = 0;  // of the last failed recv or send
};

namespace {

// The reason OpenSSL queued last, behind what; the queue is emptied.
void set_error(char* error, std::size_t size, const char* what) {
    char reason[200] = "";
    const unsigned long code = ERR_peek_last_error();
    if (code != 0) ERR_error_string_n(code, reason, sizeof reason);
    ERR_clear_error();
    if (size > 0) std::snprintf(error, size, reason[0] != '\0' ? "%s: %s" : "%s", what, reason);
}

TlsChannel* channel_of(BIO* bio) {
    return static_cast<TlsChannel*>(BIO_get_data(bio));
}

int bio_write(BIO* bio, const char* data, int length) {
    BIO_clear_retry_flags(bio);
    TlsChannel* channel = channel_of(bio);
    if (send(channel->socket, data, length, 0) == length) return length;
    channel->socket_error = WSAGetLastError();
    return -1;
}

int bio_read(BIO* bio, char* data, int length) {
    BIO_clear_retry_flags(bio);
    TlsChannel* channel = channel_of(bio);
    const int got = recv(channel->socket, data, length, 0);
    if (got < 0) channel->socket_error = WSAGetLastError();
    return got;
}

long bio_control(BIO*, int command, long, void*) {
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

int bio_create(BIO* bio) {
    BIO_set_init(bio, 1);
    return 1;
}

BIO_METHOD* socket_method() {
    static BIO_METHOD* const method = [] {
        BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "qbsmtp");
        if (made != nullptr) {
            BIO_meth_set_write(made, bio_write);
            BIO_meth_set_read(made, bio_read);
            BIO_meth_set_ctrl(made, bio_control);
            BIO_meth_set_create(made, bio_create);
        }
        return made;
    }();
    return method;
}

TlsContext* make_context(SSL_CTX* ssl_context, bool verify) {
    // A peer that closes without the TLS alert is an ordinary close: the
    // SMTP dialogue itself tells a cut message from a whole one.
    SSL_CTX_set_options(ssl_context, SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL_CTX_set_min_proto_version(ssl_context, TLS1_2_VERSION);
    auto* context = new (std::nothrow) TlsContext{ssl_context, verify};
    if (context == nullptr) SSL_CTX_free(ssl_context);
    return context;
}

}  // namespace

bool tls_supported() {
    return true;
}

TlsContext* tls_client_context(const char* ca_file, bool verify, char* error, std::size_t size) {
    SSL_CTX* ssl_context = SSL_CTX_new(TLS_client_method());
    if (ssl_context == nullptr) {
        set_error(error, size, "TLS context");
        return nullptr;
    }
    if (verify) {
        SSL_CTX_set_verify(ssl_context, SSL_VERIFY_PEER, nullptr);
        SSL_CTX_set_default_verify_paths(ssl_context);
        if (ca_file != nullptr && ca_file[0] != '\0' &&
            SSL_CTX_load_verify_locations(ssl_context, ca_file, nullptr) != 1) {
            set_error(error, size, "CA file");
            SSL_CTX_free(ssl_context);
            return nullptr;
        }
    }
    return make_context(ssl_context, verify);
}

TlsContext* tls_server_context(const char* certificate_file, const char* key_file, char* error,
                               std::size_t size) {
    SSL_CTX* ssl_context = SSL_CTX_new(TLS_server_method());
    const char* failed = nullptr;
    if (ssl_context == nullptr) {
        failed = "TLS context";
    } else if (SSL_CTX_use_certificate_chain_file(ssl_context, certificate_file) != 1) {
        failed = "certificate file";
    } else if (SSL_CTX_use_PrivateKey_file(ssl_context, key_file, SSL_FILETYPE_PEM) != 1) {
        failed = "key file";
    } else if (SSL_CTX_check_private_key(ssl_context) != 1) {
        failed = "key does not match the certificate";
    }
    if (failed == nullptr) return make_context(ssl_context, false);
    set_error(error, size, failed);
    SSL_CTX_free(ssl_context);
    return nullptr;
}

void tls_free_context(TlsContext* context) {
    if (context == nullptr) return;
    SSL_CTX_free(context->ssl_context);
    delete context;
}

TlsChannel* tls_start(TlsContext* context, SOCKET socket, bool server, const char* host_name,
                      char* error, std::size_t size) {
    auto* channel = new (std::nothrow) TlsChannel;
    BIO_METHOD* method = socket_method();
    BIO* bio = method != nullptr ? BIO_new(method) : nullptr;
    if (channel == nullptr || bio == nullptr ||
        (channel->ssl = SSL_new(context->ssl_context)) == nullptr) {
        set_error(error, size, "no memory for TLS");
        BIO_free(bio);
        delete channel;
        return nullptr;
    }
    channel->socket = socket;
    BIO_set_data(bio, channel);
    SSL_set_bio(channel->ssl, bio, bio);
    if (!server && host_name != nullptr) {
        SSL_set_tlsext_host_name(channel->ssl, host_name);
        // A relay named by its address must have that address in its
        // certificate; any other name, that name.
        X509_VERIFY_PARAM* check = SSL_get0_param(channel->ssl);
        if (context->verify && X509_VERIFY_PARAM_set1_ip_asc(check, host_name) != 1)
            SSL_set1_host(channel->ssl, host_name);
    }
    const int result = server ? SSL_accept(channel->ssl) : SSL_connect(channel->ssl);
    if (result == 1) return channel;
    const long verified = SSL_get_verify_result(channel->ssl);
    if (!server && context->verify && verified != X509_V_OK) {
        ERR_clear_error();
        std::snprintf(error, size, "certificate: %s", X509_verify_cert_error_string(verified));
    } else if (channel->socket_error != 0) {
        ERR_clear_error();
        std::snprintf(error, size, "connection lost in the handshake (%d)", channel->socket_error);
    } else {
        set_error(error, size, "handshake");
    }
    tls_end(channel, false);
    return nullptr;
}

int tls_recv(TlsChannel* channel, char* buffer, int length) {
    channel->socket_error = 0;
    std::size_t got = 0;
    const int result = SSL_read_ex(channel->ssl, buffer, static_cast<std::size_t>(length), &got);
    if (result == 1) return static_cast<int>(got);
    const int reason = SSL_get_error(channel->ssl, result);
    ERR_clear_error();
    if (reason == SSL_ERROR_ZERO_RETURN) return 0;
    WSASetLastError(channel->socket_error != 0 ? channel->socket_error : WSAECONNABORTED);
    return SOCKET_ERROR;
}

int tls_send(TlsChannel* channel, const char* buffer, int length) {
    channel->socket_error = 0;
    std::size_t sent = 0;
    if (length == 0) return 0;
    if (SSL_write_ex(channel->ssl, buffer, static_cast<std::size_t>(length), &sent) == 1 &&
        sent == static_cast<std::size_t>(length))
        return length;
    ERR_clear_error();
    WSASetLastError(channel->socket_error != 0 ? channel->socket_error : WSAECONNABORTED);
    return SOCKET_ERROR;
}

void tls_end(TlsChannel* channel, bool notify) {
    if (channel == nullptr) return;
    if (notify) SSL_shutdown(channel->ssl);
    SSL_free(channel->ssl);  // and the BIO with it
    ERR_clear_error();
    delete channel;
}

}  // namespace qbsmtp::os
