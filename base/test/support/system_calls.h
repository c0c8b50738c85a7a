// system_calls.h: system calls that fail, or do half of their work, when a test says so; another
// root; and limits on what the process may have. Linux only.
//
// The calls of one thread are looked at by a filter, which no privilege is needed for; it lasts as
// long as the thread, so the work is done on a thread of its own. A call that the filter knows
// comes back to the process as a signal, whose handler either answers in the place of the system or
// makes the call itself, marked so that the filter lets it pass.
#pragma once

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

struct StruckCall {
    long number;        // SYS_...
    int error;          // what it fails with; 0: it moves half of the bytes that it is asked for
    uint32_t nth = 1;   // the first one that is struck
    uint32_t times = 0; // how many are; 0: all from there on
};

namespace struck {

constexpr uint32_t MARK = 0x4e494d21; // sixth argument of a call that is to pass

struct State {
    StruckCall call;
    uint32_t seen = 0;
    uint32_t struck = 0;
};
inline thread_local State* sState = nullptr;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool ALONE = false; // the calls that the sanitizer makes would be struck as well
#else
constexpr bool ALONE = true;
#endif

#if defined(__x86_64__)
constexpr bool POSSIBLE = ALONE;
inline void Answer(ucontext_t* pContext, long result)
{
    pContext->uc_mcontext.gregs[REG_RAX] = result;
}
inline long Argument(const ucontext_t* pContext, int i)
{
    constexpr int REGISTERS[] = {REG_RDI, REG_RSI, REG_RDX, REG_R10, REG_R8};
    return static_cast<long>(pContext->uc_mcontext.gregs[REGISTERS[i]]);
}
#elif defined(__aarch64__)
constexpr bool POSSIBLE = ALONE;
inline void Answer(ucontext_t* pContext, long result)
{
    pContext->uc_mcontext.regs[0] = static_cast<unsigned long>(result);
}
inline long Argument(const ucontext_t* pContext, int i)
{
    return static_cast<long>(pContext->uc_mcontext.regs[i]);
}
#else
constexpr bool POSSIBLE = false;
inline void Answer(ucontext_t*, long) {}
inline long Argument(const ucontext_t*, int)
{
    return 0;
}
#endif

inline void OnCall(int, siginfo_t*, void* context)
{
    auto* pContext = static_cast<ucontext_t*>(context);
    State& state = *sState;
    const StruckCall& call = state.call;
    const uint32_t n = ++state.seen;
    const bool bStrikes = n >= call.nth && (call.times == 0 || n - call.nth < call.times);
    state.struck += bStrikes;
    if (bStrikes && call.error != 0) {
        Answer(pContext, -call.error);
        return;
    }
    const int saved = errno;
    const long size = bStrikes ? (Argument(pContext, 2) + 1) / 2 : Argument(pContext, 2);
    const long result = syscall(
        call.number, Argument(pContext, 0), Argument(pContext, 1), size, Argument(pContext, 3),
        Argument(pContext, 4), static_cast<long>(MARK));
    Answer(pContext, result < 0 ? -errno : result);
    errno = saved;
}

// For the calling thread, as long as it lives.
inline bool Install(long number)
{
    // What passes: other calls, those that the handler makes itself, and memory that is mapped
    // without a file, which the heap needs.
    const bool bMaps = number == SYS_mmap;
    const auto argument = static_cast<uint32_t>(
        bMaps ? offsetof(seccomp_data, args[3]) : offsetof(seccomp_data, args[5])); // lower half
    const auto test = static_cast<uint16_t>(BPF_JMP | BPF_K | (bMaps ? BPF_JSET : BPF_JEQ));
    sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument),
        BPF_JUMP(test, bMaps ? static_cast<uint32_t>(MAP_ANONYMOUS) : MARK, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program = {sizeof steps / sizeof *steps, steps};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

} // namespace struck

// Runs `work` on a thread whose calls are struck. Result: how many were; -1 where there are no such
// filters: then nothing has run. A call of six arguments cannot be passed on: all mappings of files
// fail, from the first.
inline int64_t WithStruckCall(const StruckCall& call, const std::function<void()>& work)
{
    if (!struck::POSSIBLE)
        return -1;
    struct sigaction action = {};
    struct sigaction former = {};
    action.sa_sigaction = struck::OnCall;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigaction(SIGSYS, &action, &former);
    int64_t result = -1;
    std::thread([&] {
        struck::State state = {call};
        struck::sState = &state;
        // The heap of a thread is made with its first piece, by calls that may be those to be
        // struck.
        void* volatile first = std::malloc(1);
        std::free(first);
        if (!struck::Install(call.number))
            return;
        work();
        result = state.struck;
    }).join();
    sigaction(SIGSYS, &former, nullptr);
    return result;
}

// Runs `work` on a thread for which `directory` is the root. False, and nothing has run, where the
// process may not do that.
inline bool WithRoot(const std::string& directory, const std::function<void()>& work)
{
    bool bRun = false;
    std::thread([&] {
        if (unshare(CLONE_FS) != 0 || chroot(directory.c_str()) != 0)
            return;
        work();
        bRun = true;
    }).join();
    return bRun;
}

// What the C library asks the system with for the status of a file, open or not, and for what a
// symbolic link holds.
#if defined(SYS_newfstatat)
constexpr long SYS_STATUS = SYS_newfstatat;
#else
constexpr long SYS_STATUS = SYS_statx;
#endif
#if defined(SYS_readlink)
constexpr long SYS_LINK = SYS_readlink;
#else
constexpr long SYS_LINK = SYS_readlinkat;
#endif

// The bytes of addresses that the process has now, for a limit that lets it have no more of them
// (what it gives back it may take again).
inline rlim_t AddressesInUse()
{
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

// A limit of the process, as long as this lives.
class Limited {
  public:
    Limited(__rlimit_resource resource, rlim_t most) : resource_(resource)
    {
        getrlimit(resource_, &former_);
        rlimit limit = former_;
        limit.rlim_cur = most;
        setrlimit(resource_, &limit);
    }
    ~Limited() { setrlimit(resource_, &former_); }
    Limited(const Limited&) = delete;
    Limited& operator=(const Limited&) = delete;

  private:
    __rlimit_resource resource_;
    rlimit former_ = {};
};
