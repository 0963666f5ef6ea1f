#include "intake/vlbuffer.h"

#include <chrono>

#include "test_support.h"
#include "intake/vlsemaphore.h"

using namespace std::chrono_literals;

TEST(VLBuffer, FirstInFirstOutWithOwnedData) {
  VLBuffer buffer;
  sockaddr_in peer{};
  peer.sin_port = 7;
  const char bytes[] = "abc";
  buffer.push(10, peer, bytes, 3);
  buffer.push(11, peer, bytes, 0);         // a pointer but no length: no data
  buffer.push(12, peer, bytes, -5);
  buffer.push(13, peer, nullptr, 4);
  EXPECT_EQ(buffer.size(), 4u);

  VLBuffer::connInfo out;
  ASSERT_TRUE(buffer.pop(out));
  EXPECT_EQ(out.socket, 10);
  EXPECT_EQ(out.peer.sin_port, 7);
  EXPECT_EQ(std::string(out.data.begin(), out.data.end()), "abc");
  for (int socket : {11, 12, 13}) {
    ASSERT_TRUE(buffer.pop(out));
    EXPECT_EQ(out.socket, socket);
    EXPECT_TRUE(out.data.empty());
  }
  EXPECT_TRUE(buffer.empty());
  EXPECT_FALSE(buffer.pop(out));  // an empty pop is refused, not undefined
}

TEST(VLBuffer, EveryPushRaisesEachRegisteredSemaphoreOnce) {
  VLBuffer buffer;
  Semaphore a, b;
  EXPECT_EQ(buffer.registerCallback(&a), 0);
  EXPECT_EQ(buffer.registerCallback(&a), -1);
  EXPECT_EQ(buffer.registerCallback(&b), 0);
  for (int i = 0; i < 3; ++i) buffer.push(i, sockaddr_in{}, nullptr, 0);
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(a.semDownFor(0ms));
    EXPECT_TRUE(b.semDownFor(0ms));
  }
  EXPECT_FALSE(a.semDownFor(0ms));  // registered twice, raised once a push

  EXPECT_EQ(buffer.unregisterCallback(&b), 0);
  EXPECT_EQ(buffer.unregisterCallback(&b), -1);
  buffer.push(9, sockaddr_in{}, nullptr, 0);
  EXPECT_TRUE(a.semDownFor(0ms));
  EXPECT_FALSE(b.semDownFor(0ms));
}

TEST(Semaphore, WaiterWakesOnUp) {
  Semaphore sem;
  std::thread waiter([&] { sem.semDown(); });
  std::this_thread::sleep_for(20ms);
  sem.semUp();
  waiter.join();  // hangs the test if the wake-up were lost
  EXPECT_FALSE(sem.semDownFor(0ms));
}
