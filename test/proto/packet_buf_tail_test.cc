// Bytes that exist ahead of their time, between open_tail() and cut_tail().
#include "proto/packet_buf.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test/support/allocations.h"

namespace {

using VORN::PROTO::PacketBuf;

void write(PacketBuf& buf, const std::string& bytes) {
  buf.write_bytes(bytes.data(), bytes.size());
}

// Piece by piece, as values are written.
void write_pieces(PacketBuf& buf, const std::string& bytes) {
  for (const char c : bytes) buf.write_byte(static_cast<uint8_t>(c));
}

// Leaves bytes in the thread's scratch memory that a later buffer must not show.
void soil_scratch() {
  PacketBuf buf(0);
  buf.open_tail();
  write_pieces(buf, std::string(1000, '#'));
  buf.cut_tail();
  EXPECT_EQ(std::string(1000, '#'), buf.data());
}

TEST(PacketBufTail, IsGoneWhenItIsCut) {
  soil_scratch();
  for (const size_t n : {0U, 1U, 15U, 16U, 255U, 256U, 257U, 65535U, 65536U, 65537U, 262144U, 262145U, 1000000U}) {
    SCOPED_TRACE(n);
    const std::string bytes(n, 'x');
    PacketBuf bare(0);
    PacketBuf roomy;
    for (PacketBuf* const buf : {&bare, &roomy}) {
      buf->open_tail();
      write_pieces(*buf, bytes);
      buf->cut_tail();
      EXPECT_EQ(n, buf->pos());
      EXPECT_EQ(n, buf->payload_size());
      EXPECT_TRUE(bytes == buf->data());
    }
  }
}

TEST(PacketBufTail, LeavesTheBytesThatWereThere) {
  soil_scratch();
  for (const uint64_t pos : {uint64_t{0}, uint64_t{2}, uint64_t{6}, uint64_t{8}}) {
    const size_t at = static_cast<size_t>(pos);
    SCOPED_TRACE(pos);
    PacketBuf buf(0);
    write(buf, "abcdef");
    buf.set_pos(pos);
    buf.open_tail();
    buf.cut_tail();
    EXPECT_EQ("abcdef", buf.data());
    buf.open_tail();
    write_pieces(buf, "12");
    buf.cut_tail();
    std::string expected("abcdef\0\0", 8);
    expected.resize(std::max<size_t>(6, at + 2));
    expected.replace(at, 2, "12");
    EXPECT_EQ(expected, buf.data());
    EXPECT_EQ(pos + 2, buf.pos());
  }
}

TEST(PacketBufTail, AGapBeforeItIsZero) {
  soil_scratch();
  for (const uint64_t pos : {uint64_t{8}, PacketBuf::INITIAL_CAPACITY, uint64_t{0x50000}}) {
    SCOPED_TRACE(pos);
    PacketBuf buf(0);
    buf.set_pos(pos);
    buf.open_tail();
    buf.cut_tail();
    EXPECT_EQ(0U, buf.data().size());
    EXPECT_EQ(pos, buf.pos());
    buf.open_tail();
    write_pieces(buf, "payload");
    buf.cut_tail();
    EXPECT_TRUE(std::string(static_cast<size_t>(pos), '\0') + "payload" == buf.data());
  }
}

TEST(PacketBufTail, CallsMayBeRepeated) {
  PacketBuf buf(0);
  buf.cut_tail();
  buf.open_tail();
  write_pieces(buf, "ab");
  buf.open_tail();
  write_pieces(buf, "cd");
  buf.cut_tail();
  EXPECT_EQ("abcd", buf.data());
  buf.cut_tail();
  write(buf, "ef");
  EXPECT_EQ("abcdef", buf.data());
}

// A write that runs other code, which writes to another new buffer.
TEST(PacketBufTail, BuffersDoNotShareIt) {
  soil_scratch();
  std::vector<std::unique_ptr<PacketBuf>> buffers;
  for (int i = 0; i < 4; ++i) {
    buffers.emplace_back(new PacketBuf(0));
    buffers.back()->open_tail();
    write_pieces(*buffers.back(), std::string(100, static_cast<char>('a' + i)));
  }
  for (auto& buf : buffers) write_pieces(*buf, "!");
  buffers[1].reset();  // in the middle of its write
  for (auto& buf : buffers) {
    if (buf != nullptr) buf->cut_tail();
  }
  for (const size_t i : {0U, 2U, 3U}) {
    EXPECT_EQ(std::string(100, static_cast<char>('a' + i)) + '!', buffers[i]->data());
  }
}

TEST(PacketBufTail, TakesMemoryOfTheMessagesSize) {
  soil_scratch();
  for (const size_t n : {100U, 5000U, 100000U}) {
    PacketBuf buf(0);
    buf.open_tail();
    write_pieces(buf, std::string(n, 'x'));
    buf.cut_tail();
    std::string exact;  // some libraries give a few bytes more
    exact.reserve(n);
    EXPECT_EQ(exact.capacity(), buf.data().capacity());
  }
  const vorn_test::AllocationCount allocations;
  PacketBuf buf(0);
  EXPECT_EQ(0U, allocations.count());
  buf.open_tail();
  write_pieces(buf, std::string(50000, 'x'));
  buf.cut_tail();
  EXPECT_LE(allocations.bytes(), 110000U) << "the message, once for the test and once in the buffer";
}

TEST(PacketBufTail, ALongMessageKeepsTheMemoryThatItIsIn) {
  for (const size_t n : {1000U, 1000000U}) {
    PacketBuf buf(0);
    buf.open_tail();
    write_pieces(buf, std::string(n, 'x'));
    const char* const end = buf.begin_write(0);
    buf.cut_tail();
    EXPECT_EQ(n > 1000, buf.data().data() + n == end);
  }
}

TEST(PacketBufTail, IsThereForTheNextPiece) {
  PacketBuf buf;
  buf.open_tail();
  EXPECT_EQ(nullptr, buf.begin_write(1));
  buf.write_byte(1);
  EXPECT_NE(nullptr, buf.begin_write(256));
  EXPECT_EQ(nullptr, buf.begin_write(257));
  buf.cut_tail();
  EXPECT_EQ(1U, buf.data().size());
}

TEST(PacketBufTail, StaysWithinTheMemoryOfABufferThatHasIt) {
  PacketBuf buf;
  const char* const storage = buf.data().data();
  const size_t capacity = buf.data().capacity();
  buf.open_tail();
  for (uint64_t i = 0; i < PacketBuf::INITIAL_CAPACITY; ++i) buf.write_byte(0x61);
  buf.cut_tail();
  EXPECT_EQ(storage, buf.data().data());
  EXPECT_EQ(capacity, buf.data().capacity());
}

TEST(PacketBufTail, WithoutMemoryForItTheMessageIsWrittenAllTheSame) {
  for (uint64_t nth = 1; nth < 4; ++nth) {
    for (const bool scratch_is_there : {false, true}) {
      if (scratch_is_there) soil_scratch();
      PacketBuf buf(0);
      PacketBuf borrower(0);
      if (!scratch_is_there) borrower.open_tail();
      write_pieces(borrower, "x");
      const std::string bytes(100, 'y');
      {
        const vorn_test::FailAllocation fail(nth);
        buf.open_tail();
        try {
          write_pieces(buf, bytes);
        } catch (const std::bad_alloc&) {
          EXPECT_TRUE(fail.failed());
        }
        buf.cut_tail();
      }
      EXPECT_EQ(bytes.substr(0, buf.pos()), buf.data()) << nth;
      write_pieces(buf, bytes.substr(buf.pos()));
      EXPECT_EQ(bytes, buf.data()) << nth;
    }
  }
}

#ifndef NDEBUG

TEST(PacketBufTailDeathTest, NobodyLooksAtTheBufferWhileItIsOpen) {
  PacketBuf buf;
  buf.open_tail();
  buf.write_byte(1);
  EXPECT_DEATH(buf.data(), "tail_is_open_");
  EXPECT_DEATH(buf.payload_end(), "tail_is_open_");
  EXPECT_DEATH(buf.index_within_payload(0), "tail_is_open_");
  EXPECT_DEATH(buf.set_pos(0), "tail_is_open_");
  buf.cut_tail();
  EXPECT_EQ(1U, buf.data().size());
}

#endif

}  // namespace
