// Process-wide tables behind the exported interface: device paths by USB ID,
// device objects by ID (USB and Bluetooth share one table), and one lock
// record per USB ID with a lock for each family of operations.
#pragma once

#include "ZOR_focuser.h"
#include "device/zor.h"

#include <atomic>
#include <mutex>
#include <pthread.h>

constexpr int kLockFamilies = 64;

// A recursive pthread mutex and the attribute it was made with. Creation
// returns 0 or the failing step's result, and leaves nothing behind when it fails.
struct S_MUTEX_UNIX {
    pthread_mutex_t mutex;
    pthread_mutexattr_t attr;
};

int InitCriSecZOR(S_MUTEX_UNIX *m);
int DelCriSecZOR(S_MUTEX_UNIX *m);

struct LockRecord {
    S_MUTEX_UNIX Mutex[kLockFamilies];
    // Busy[f] is raised from just before a caller tries to take lock f until
    // just after it released it; ZORClose waits for it to fall. It counts the
    // callers, so that with several callers of one family the close waits
    // for the last of them before it destroys the lock.
    std::atomic<int> Busy[kLockFamilies];
    std::atomic<bool> Initialised;
};

extern char DevPathScan[ZOR_MAX_NUM][kPathBytes];
extern int iConnectedZOR;
extern char DevPathArray[ZOR_MAX_NUM][kPathBytes];
extern std::atomic<CZOR *> pZOR[ZOR_MAX_NUM];
extern LockRecord MutexCamPt[ZOR_MAX_NUM];
extern int g_BleStartId;
// Serialises the handing out and taking back of Bluetooth IDs. Recursive: a
// connect that takes the link over runs the older session's callbacks, which
// may disconnect it.
extern std::recursive_mutex g_bleIdMutex;
// The calls inside each ID's object on the Bluetooth path; its object is
// deleted only once none is.
extern std::atomic<int> g_bleCallsInProgress[ZOR_MAX_NUM];

inline bool isTableId(int id) { return id >= 0 && id < ZOR_MAX_NUM; }
inline bool hasPath(int id) { return isTableId(id) && DevPathArray[id][0] != '\0'; }

// Creates the 64 locks of a record and marks it initialised. Returns 0, or
// the system's result when a lock could not be made; the record is then left
// uninitialised with no lock in it.
int initLockRecord(LockRecord &record);
// Takes every lock of a record, lowest family first.
void lockAllFamilies(LockRecord &record);
// Releases each lock in turn, waits until no caller is busy on it, destroys it.
void releaseAndDestroyFamilies(LockRecord &record);
