/// Sockets as the system has them: what differs between POSIX and Windows.
#pragma once

#ifdef _WIN32
// Boost.Asio initialises Winsock, and has to come before its header.
#include <boost/asio/detail/socket_types.hpp>
#else
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <cerrno>
#include <cstddef>

namespace vorn_test {

#ifdef _WIN32

using BareSocket = SOCKET;
constexpr BareSocket NO_SOCKET = INVALID_SOCKET;
constexpr int SHUT_WR = SD_SEND;

inline int last_socket_error() {
  return WSAGetLastError();
}
inline bool would_wait() {
  return WSAGetLastError() == WSAEWOULDBLOCK;
}
inline int poll(pollfd* sockets, unsigned count, int milliseconds) {
  return WSAPoll(sockets, count, milliseconds);
}
inline void make_nonblocking(BareSocket socket) {
  u_long on = 1;
  ioctlsocket(socket, FIONBIO, &on);
}
inline void close_socket(BareSocket socket) {
  closesocket(socket);
}
inline int send_bytes(BareSocket socket, const char* bytes, size_t size) {
  return ::send(socket, bytes, static_cast<int>(size), 0);
}
inline int receive_bytes(BareSocket socket, char* bytes, size_t size) {
  return ::recv(socket, bytes, static_cast<int>(size), 0);
}

#else

using BareSocket = int;
constexpr BareSocket NO_SOCKET = -1;

inline int last_socket_error() {
  return errno;
}
inline bool would_wait() {
  return errno == EAGAIN;
}
inline void make_nonblocking(BareSocket socket) {
  fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) | O_NONBLOCK);
}
inline void close_socket(BareSocket socket) {
  ::close(socket);
}
inline ssize_t send_bytes(BareSocket socket, const char* bytes, size_t size) {
  return ::send(socket, bytes, size, MSG_NOSIGNAL);
}
inline ssize_t receive_bytes(BareSocket socket, char* bytes, size_t size) {
  return ::recv(socket, bytes, size, 0);
}

#endif

}  // namespace vorn_test
