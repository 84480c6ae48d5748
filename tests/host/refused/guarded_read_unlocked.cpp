#include "host/osal/mutex.h"

class Counter {
public:
    int Get() { return count_; }

private:
    host::Mutex mutex_;
    int count_ TARN_GUARDED_BY(mutex_) = 0;
};
