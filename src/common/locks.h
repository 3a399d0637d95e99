// Locks by scope. A guard that could not be taken says so; nothing is unlocked then.
#ifndef PKI_COMMON_LOCKS_H
#define PKI_COMMON_LOCKS_H

#include <pthread.h>

namespace pki {

class write_lock {
 public:
  explicit write_lock(pthread_rwlock_t *lock) : lock_(lock), error_(pthread_rwlock_wrlock(lock)) {}
  write_lock(const write_lock &) = delete;
  write_lock &operator=(const write_lock &) = delete;
  ~write_lock() {
    if (lock_ && error_ == 0)
      pthread_rwlock_unlock(lock_);
  }
  [[nodiscard]] bool held() const { return error_ == 0; }
  [[nodiscard]] int error() const { return error_; }

  // Unlocks now and returns what that gave.
  int unlock() {
    int result = pthread_rwlock_unlock(lock_);
    lock_ = nullptr;
    return result;
  }

 private:
  pthread_rwlock_t *lock_;
  int error_;
};

class read_lock {
 public:
  explicit read_lock(pthread_rwlock_t *lock) : lock_(lock), error_(pthread_rwlock_rdlock(lock)) {}
  read_lock(const read_lock &) = delete;
  read_lock &operator=(const read_lock &) = delete;
  ~read_lock() {
    if (error_ == 0)
      pthread_rwlock_unlock(lock_);
  }
  [[nodiscard]] bool held() const { return error_ == 0; }

 private:
  pthread_rwlock_t *lock_;
  int error_;
};

class mutex_lock {
 public:
  explicit mutex_lock(pthread_mutex_t *mutex) : mutex_(mutex) { pthread_mutex_lock(mutex); }
  mutex_lock(const mutex_lock &) = delete;
  mutex_lock &operator=(const mutex_lock &) = delete;
  ~mutex_lock() { pthread_mutex_unlock(mutex_); }

 private:
  pthread_mutex_t *mutex_;
};

}  // namespace pki

#endif
