// Scoped locking of the plug-in's process-wide pthread mutexes.
#ifndef RFEVENT_BASE_MUTEX_LOCK_H
#define RFEVENT_BASE_MUTEX_LOCK_H

#include <pthread.h>

namespace rfevent {

class MutexLock {
  public:
    explicit MutexLock(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~MutexLock() { pthread_mutex_unlock(&mutex_); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    pthread_mutex_t& mutex_;
};

} // namespace rfevent

#endif
