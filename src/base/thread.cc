#include "base/thread.h"

#include <memory>
#include <system_error>
#include <utility>

namespace {

void* trampoline(void* arg) {
  std::unique_ptr<std::function<void()>> body(static_cast<std::function<void()>*>(arg));
  (*body)();
  return nullptr;
}

}  // namespace

pthread_t Thread::start(std::function<void()> body, std::size_t stackSize, bool detached,
                        int& error) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, stackSize);
  if (detached) pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  auto arg = std::make_unique<std::function<void()>>(std::move(body));
  pthread_t id{};
  error = pthread_create(&id, &attr, trampoline, arg.get());
  pthread_attr_destroy(&attr);
  if (error == 0) arg.release();  // the thread owns it now
  return id;
}

Thread::Thread(std::function<void()> body, std::size_t stackSize) {
  int error = 0;
  id_ = start(std::move(body), stackSize, false, error);
  if (error != 0) throw std::system_error(error, std::generic_category(), "pthread_create");
  joinable_ = true;
}

Thread::~Thread() { join(); }

Thread::Thread(Thread&& other) noexcept
    : id_(other.id_), joinable_(std::exchange(other.joinable_, false)) {}

Thread& Thread::operator=(Thread&& other) noexcept {
  if (this != &other) {
    join();
    id_ = other.id_;
    joinable_ = std::exchange(other.joinable_, false);
  }
  return *this;
}

int Thread::join() {
  if (!joinable_) return 0;
  joinable_ = false;
  return pthread_join(id_, nullptr);
}

bool Thread::detach(std::function<void()> body, std::size_t stackSize) {
  int error = 0;
  start(std::move(body), stackSize, true, error);
  return error == 0;
}
