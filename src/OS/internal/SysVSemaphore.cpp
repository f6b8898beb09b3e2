// System V semaphore operations and the keys of named objects' sets.

#include "OS/internal/SysVSemaphore.h"

#include <stdio.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include "OS/internal/BlockLayouts.h"
#include "OS/internal/Private.h"

namespace internal = ostrelled::internal;

namespace ostrelled {
namespace internal {
namespace SysV {
namespace {

// The caller defines semctl's fourth argument on Linux.
union semun {
  int val;
  semid_ds* buf;
  unsigned short* array;
};

sembuf operation(short delta, bool bUndoTrack) {
  sembuf op{};
  op.sem_num = 0;
  op.sem_op = delta;
  op.sem_flg = bUndoTrack ? SEM_UNDO : 0;
  return op;
}

// EAGAIN is how a timed wait ends without a unit; it is not an error worth a line.
// errno survives the line, so the caller still sees why the wait ended.
void reportWaitFailure(const char* prefix, const char* call) {
  const int error = errno;
  if (error != EAGAIN) printf("%s:%s[wait] failed,errno=%d!!\n", prefix, call, error);
  errno = error;
}

}  // namespace

void destroySem(int intSemId) { semctl(intSemId, 0, IPC_RMID); }

int getSemVal(int intSemId) { return semctl(intSemId, 0, GETVAL); }

void setSemVal(int intSemId, int intValue) {
  semun arg{};
  arg.val = intValue;
  semctl(intSemId, 0, SETVAL, arg);
}

void postSem(const char* prefix, int intSemId, bool bUndoTrack) {
  sembuf op = operation(1, bUndoTrack);
  if (retryOnEintr([&] { return semop(intSemId, &op, 1); }) != 0)
    printf("%s:semop[post] failed,errno=%d!!\n", prefix, errno);
}

bool waitSem(const char* prefix, int intSemId, bool bUndoTrack) {
  sembuf op = operation(-1, bUndoTrack);
  if (retryOnEintr([&] { return semop(intSemId, &op, 1); }) == 0) return true;
  reportWaitFailure(prefix, "semop");
  return false;
}

bool waitSemUntil(const char* prefix, int intSemId, const Deadline& deadline, bool bUndoTrack) {
  sembuf op = operation(-1, bUndoTrack);
  int result = retryOnEintr([&] {
    // A passed deadline still takes a unit that is there, like sem_timedwait does.
    timespec left = deadline.leftTime();
    return semtimedop(intSemId, &op, 1, &left);
  });
  if (result == 0) return true;
  reportWaitFailure(prefix, "semtimedop");
  return false;
}

// A set is as private as its block. One made for the manager's group (nothing
// for others) is created for its owner alone and then handed to the block's
// group, so that every member may post it and nobody else may even read it.
int createSet(key_t key, const std::string& name) {
  struct stat block;
  bool grouped = stat(internal::shmPath(name).c_str(), &block) == 0 && (block.st_mode & S_IRWXO) == 0;
  int id = semget(key, 1, IPC_CREAT | (grouped ? 0600 : 0755));
  if (id == -1 || !grouped) return id;
  semid_ds perm{};
  semun arg{};
  arg.buf = &perm;
  if (semctl(id, 0, IPC_STAT, arg) == 0) {
    perm.sem_perm.gid = block.st_gid;
    perm.sem_perm.mode = static_cast<unsigned short>(block.st_mode & (S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP));
    semctl(id, 0, IPC_SET, arg);
  }
  return id;
}

bool keyOfBlock(const std::string& name, const char* what, key_t& key) {
  std::string path = internal::shmPath(name);
  key = ftok(path.c_str(), 0);
  if (key != -1) return true;
  // The line has always shown the path buffer after it was released, that is
  // glibc's text for a null string; kept byte for byte.
  printf("can't access memory file[%s], create %s failed\n", "(null)", what);
  return false;
}

}  // namespace SysV
}  // namespace internal
}  // namespace ostrelled
