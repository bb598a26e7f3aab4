#include "api/device_table.h"

#include <chrono>
#include <thread>

char DevPathScan[ZOR_MAX_NUM][kPathBytes];
int iConnectedZOR;
char DevPathArray[ZOR_MAX_NUM][kPathBytes];
std::atomic<CZOR *> pZOR[ZOR_MAX_NUM];
LockRecord MutexCamPt[ZOR_MAX_NUM];
int g_BleStartId = ZOR_BLE_ID_BASE;
std::recursive_mutex g_bleIdMutex;
std::atomic<int> g_bleCallsInProgress[ZOR_MAX_NUM];

int InitCriSecZOR(S_MUTEX_UNIX *m)
{
    if (int rc = pthread_mutexattr_init(&m->attr))
        return rc;
    int rc = pthread_mutexattr_settype(&m->attr, PTHREAD_MUTEX_RECURSIVE);
    if (rc == 0)
        rc = pthread_mutex_init(&m->mutex, &m->attr);
    if (rc != 0)
        pthread_mutexattr_destroy(&m->attr);
    return rc;
}

int DelCriSecZOR(S_MUTEX_UNIX *m)
{
    if (int rc = pthread_mutex_destroy(&m->mutex))
        return rc;
    return pthread_mutexattr_destroy(&m->attr);
}

// The Busy counts are not reset here: every caller lowers what it raised, so
// they are 0 when nobody calls, and a reset would break a count in flight.
int initLockRecord(LockRecord &record)
{
    for (int f = 0; f < kLockFamilies; ++f) {
        if (int rc = InitCriSecZOR(&record.Mutex[f])) {
            while (f-- > 0)
                DelCriSecZOR(&record.Mutex[f]);
            return rc;
        }
    }
    record.Initialised = true;
    return 0;
}

void lockAllFamilies(LockRecord &record)
{
    for (int f = 0; f < kLockFamilies; ++f)
        pthread_mutex_lock(&record.Mutex[f].mutex);
}

void releaseAndDestroyFamilies(LockRecord &record)
{
    for (int f = 0; f < kLockFamilies; ++f) {
        pthread_mutex_unlock(&record.Mutex[f].mutex);
        while (record.Busy[f] != 0) {
            ZORDbgPrint(__func__, "Slp\n");
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        DelCriSecZOR(&record.Mutex[f]);
    }
}
