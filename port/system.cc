// Everything here that differs between Windows and POSIX.
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <unordered_map>
#include <vector>

#include "port/port.h"

#if defined(__x86_64__) || defined(_M_X64)
#include <immintrin.h>
#endif
#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#include <iconv.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

namespace port {

struct Thread {
  std::thread thread;
};

Thread* StartThread(unsigned (*fn)(void*), void* arg) {
  auto* t = new Thread;
  t->thread = std::thread([fn, arg] { fn(arg); });
  return t;
}

void DetachThread(Thread* thread) {
  if (thread == nullptr) return;
  if (thread->thread.joinable()) thread->thread.detach();
  delete thread;
}

void JoinThread(Thread* thread) {
  if (thread == nullptr) return;
  if (thread->thread.joinable()) {
    if (thread->thread.get_id() == std::this_thread::get_id()) {
      // A thread cannot wait for itself; let it finish on its own.
      thread->thread.detach();
    } else {
      thread->thread.join();
    }
  }
  delete thread;
}

int ProcessorCount() {
  unsigned n = std::thread::hardware_concurrency();
  return n == 0 ? 1 : static_cast<int>(n);
}

void SleepMs(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

namespace {

// Every value a slot of this module holds, so that freeing the slots can
// destroy what threads still hold. Never destroyed: threads may end after
// the module's statics are gone.
struct SlotValues {
  std::mutex mu;
  std::unordered_map<void*, ThreadSlot*> owners;
  std::vector<ThreadSlot*> slots;
};
SlotValues& Values() {
  static auto* values = new SlotValues;
  return *values;
}

// The system's destructor of every slot: destroys a value still registered
// (once, whether the thread's end or the slot's release comes first).
void ReleaseValue(void* value) {
  ThreadSlot* slot = nullptr;
  {
    std::lock_guard<std::mutex> lock(Values().mu);
    auto it = Values().owners.find(value);
    if (it == Values().owners.end()) return;
    slot = it->second;
    Values().owners.erase(it);
  }
  slot->destroy(value);
}

}  // namespace

#if defined(_WIN32)
// A fiber-local slot's callback also runs when a thread ends, and the value
// lives outside the thread_local storage that MinGW frees first. x64 has one
// calling convention, so ReleaseValue serves as the callback as it is.
static unsigned long NewKey() { return FlsAlloc(reinterpret_cast<PFLS_CALLBACK_FUNCTION>(&ReleaseValue)); }
static void FreeKey(unsigned long key) { FlsFree(key); }
static void* GetKey(unsigned long key) { return FlsGetValue(key); }
static void SetKey(unsigned long key, void* value) { FlsSetValue(key, value); }
#else
static unsigned long NewKey() {
  pthread_key_t key;
  pthread_key_create(&key, &ReleaseValue);
  return key;
}
static void FreeKey(unsigned long key) { pthread_key_delete(static_cast<pthread_key_t>(key)); }
static void* GetKey(unsigned long key) { return pthread_getspecific(static_cast<pthread_key_t>(key)); }
static void SetKey(unsigned long key, void* value) { pthread_setspecific(static_cast<pthread_key_t>(key), value); }
#endif

ThreadSlot::ThreadSlot(void (*dtor)(void*)) : key_(NewKey()), dtor_(dtor) {
  std::lock_guard<std::mutex> lock(Values().mu);
  Values().slots.push_back(this);
}

void* ThreadSlot::get() const { return freed_ ? nullptr : GetKey(key_); }

void ThreadSlot::set(void* value) {
  std::lock_guard<std::mutex> lock(Values().mu);
  if (freed_) return;
  if (void* old = GetKey(key_)) Values().owners.erase(old);
  if (value != nullptr) Values().owners[value] = this;
  SetKey(key_, value);
}

void ReleaseThreadSlots() {
  std::vector<ThreadSlot*> slots;
  {
    std::lock_guard<std::mutex> lock(Values().mu);
    slots.swap(Values().slots);
    for (ThreadSlot* slot : slots) slot->freed_ = true;
  }
  // Windows calls ReleaseValue for the values of every thread as it frees
  // a key; POSIX calls nothing. Whatever is left is destroyed here.
  for (ThreadSlot* slot : slots) FreeKey(slot->key_);
  std::unordered_map<void*, ThreadSlot*> left;
  {
    std::lock_guard<std::mutex> lock(Values().mu);
    left.swap(Values().owners);
  }
  for (auto& [value, slot] : left) slot->destroy(value);
}

void PinModule(const void* address) {
#if defined(_WIN32)
  HMODULE module = nullptr;
  GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                     static_cast<LPCSTR>(address), &module);
#else
  (void)address;
#endif
}

void* LoadModule(const std::string& path) {
#if defined(_WIN32)
  return reinterpret_cast<void*>(LoadLibraryA(path.c_str()));
#else
  return dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
#endif
}

void* ModuleSymbol(void* module, const char* name) {
  if (module == nullptr) return nullptr;
#if defined(_WIN32)
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name));
#else
  return dlsym(module, name);
#endif
}

void UnloadModule(void* module) {
  if (module == nullptr) return;
#if defined(_WIN32)
  FreeLibrary(static_cast<HMODULE>(module));
#else
  dlclose(module);
#endif
}

unsigned long CurrentThreadId() {
#if defined(_WIN32)
  return GetCurrentThreadId();
#else
  return static_cast<unsigned long>(syscall(SYS_gettid));
#endif
}

bool LocalTime(std::time_t t, std::tm* out) {
#if defined(_WIN32)
  return localtime_s(out, &t) == 0;
#else
  return localtime_r(&t, out) != nullptr;
#endif
}

std::time_t MakeLocalTime(std::tm* tm) { return std::mktime(tm); }

bool FileExists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

const char* LogConfigPath() {
#if defined(_WIN32)
  return ".\\ini\\KELQuoteLog.config";
#else
  return "./ini/KELQuoteLog.config";
#endif
}

const char* CaptureConfigPath() {
#if defined(_WIN32)
  return ".\\ini\\KELQuoteCapture.config";
#else
  return "./ini/KELQuoteCapture.config";
#endif
}

bool SetEnvironment(const char* name, const char* value) {
#if defined(_WIN32)
  return _putenv_s(name, value) == 0;
#else
  return setenv(name, value, 1) == 0;
#endif
}

bool GbkToUtf8(const std::string& gbk, std::string* utf8) {
  utf8->clear();
  if (gbk.empty()) return true;
#if defined(_WIN32)
  int wide_len = MultiByteToWideChar(936, MB_ERR_INVALID_CHARS, gbk.data(),
                                     static_cast<int>(gbk.size()), nullptr, 0);
  if (wide_len <= 0) return false;
  std::wstring wide(static_cast<size_t>(wide_len), L'\0');
  MultiByteToWideChar(936, 0, gbk.data(), static_cast<int>(gbk.size()), wide.data(), wide_len);
  int len = WideCharToMultiByte(CP_UTF8, 0, wide.data(), wide_len, nullptr, 0, nullptr, nullptr);
  if (len <= 0) return false;
  utf8->resize(static_cast<size_t>(len));
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), wide_len, utf8->data(), len, nullptr, nullptr);
  return true;
#else
  iconv_t cd = iconv_open("UTF-8", "GBK");
  if (cd == reinterpret_cast<iconv_t>(-1)) return false;
  std::string out(gbk.size() * 2 + 4, '\0');
  char* in_ptr = const_cast<char*>(gbk.data());
  size_t in_left = gbk.size();
  char* out_ptr = out.data();
  size_t out_left = out.size();
  size_t rc = iconv(cd, &in_ptr, &in_left, &out_ptr, &out_left);
  iconv_close(cd);
  if (rc == static_cast<size_t>(-1)) return false;
  out.resize(out.size() - out_left);
  *utf8 = std::move(out);
  return true;
#endif
}

void CpuRelax() {
#if defined(__x86_64__) || defined(_M_X64)
  _mm_pause();
#else
  std::this_thread::yield();
#endif
}

}  // namespace port

#if defined(_WIN32)
// Every DLL that links this layer frees its slots when a host unloads it.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
  if (reason == DLL_PROCESS_DETACH && reserved == nullptr) port::ReleaseThreadSlots();
  return TRUE;
}
#endif
