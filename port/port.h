// The platform layer: the few operating-system services the library needs,
// behind one portable interface. Nothing outside port/ names an OS header.
#ifndef KELQUOTE_PORT_PORT_H_
#define KELQUOTE_PORT_PORT_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>

#if defined(__MINGW32__)
// MinGW's "printf" checks the msvcrt dialect (no %zu, %hhd), but libstdc++
// routes std::vsnprintf to MinGW's C99 implementation.
#define KQ_PRINTF_FORMAT(fmt, first) __attribute__((format(gnu_printf, fmt, first)))
#elif defined(__GNUC__)
#define KQ_PRINTF_FORMAT(fmt, first) __attribute__((format(printf, fmt, first)))
#else
#define KQ_PRINTF_FORMAT(fmt, first)
#endif

namespace port {

// Bytes one '\n' takes in a file written through a text-mode stream (an
// fstream opened without std::ios::binary, as log4cplus opens its files).
#if defined(_WIN32)
inline constexpr int kTextNewlineBytes = 2;
#else
inline constexpr int kTextNewlineBytes = 1;
#endif

// A counting semaphore with a maximum count, as the Windows kernel object:
// a release that would lift the count above the maximum fails and leaves the
// count unchanged.
class Semaphore {
 public:
  Semaphore(int initial, int maximum);
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  // Adds n to the count. Returns false, changing nothing, when the result
  // would exceed the maximum.
  bool Release(int n = 1);
  void Acquire();
  // Returns false when the time-out passed without the count becoming positive.
  bool AcquireFor(std::chrono::milliseconds timeout);
  int count() const;

 private:
  mutable std::mutex mu_;
  std::condition_variable cv_;
  int count_;
  const int maximum_;
};

// An operating-system thread running fn(arg). Handles are owned by the caller
// and released by JoinThread.
struct Thread;
Thread* StartThread(unsigned (*fn)(void*), void* arg);
void JoinThread(Thread* thread);
// Releases the handle of a thread that ends on its own.
void DetachThread(Thread* thread);

// A per-thread pointer slot: dtor(value) runs when a thread that set a
// non-null value ends. Slots live as long as their module: when a library
// holding slots is unloaded, ReleaseThreadSlots frees them and destroys the
// values that threads still hold, so that no thread's exit calls into code
// that is gone.
class ThreadSlot {
 public:
  explicit ThreadSlot(void (*dtor)(void*));
  ThreadSlot(const ThreadSlot&) = delete;
  ThreadSlot& operator=(const ThreadSlot&) = delete;
  void* get() const;
  void set(void* value);
  // What a thread's end does to the value it set.
  void destroy(void* value) const { dtor_(value); }

 private:
  friend void ReleaseThreadSlots();
  unsigned long key_;
  void (*dtor_)(void*);
  bool freed_ = false;
};

// Frees this module's slots; what get() then returns is null and set() is
// ignored. On Windows the module's DllMain calls it when a host unloads the
// DLL (not at process exit, when other threads are already gone mid-step).
void ReleaseThreadSlots();

// One T per thread, made on the thread's first get() and destroyed when the
// thread ends. Use it, not thread_local, for anything with a destructor:
// MinGW frees a thread's thread_local storage before running the destructors
// of what lives there. Define instances as statics; they are never destroyed.
template <typename T>
class ThreadLocal {
 public:
  ThreadLocal() : slot_([](void* value) { delete static_cast<T*>(value); }) {}
  T& get() {
    auto* value = static_cast<T*>(slot_.get());
    if (value == nullptr) {
      value = new T();
      slot_.set(value);
    }
    return *value;
  }

 private:
  ThreadSlot slot_;
};

// Number of processors the system reports (at least 1).
int ProcessorCount();
void SleepMs(int milliseconds);
// A short pause inside a spin-wait loop: tells the processor the thread is
// spinning, without a system call.
void CpuRelax();
// The operating system's id of the calling thread.
unsigned long CurrentThreadId();

// Keeps the shared library holding address loaded until the process ends,
// whatever its host unloads: for a library that leaves threads running (on
// Linux the libraries are linked to stay loaded, and this does nothing).
void PinModule(const void* address);

// A shared library loaded at run time: null when it cannot be loaded or has
// no such symbol.
void* LoadModule(const std::string& path);
void* ModuleSymbol(void* module, const char* name);
void UnloadModule(void* module);

// Calendar conversions in the process's local time zone.
bool LocalTime(std::time_t t, std::tm* out);
std::time_t MakeLocalTime(std::tm* tm);

bool FileExists(const std::string& path);
// Where the log configuration lives, relative to the working directory.
const char* LogConfigPath();
// Where the capture setting lives, relative to the working directory.
const char* CaptureConfigPath();

// Sets an environment variable of the process; false when it cannot.
bool SetEnvironment(const char* name, const char* value);

// GBK (code page 936) to UTF-8. Returns false when the input is not valid GBK.
bool GbkToUtf8(const std::string& gbk, std::string* utf8);

}  // namespace port

#endif  // KELQUOTE_PORT_PORT_H_
