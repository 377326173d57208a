#pragma once

#include <windows.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

namespace tez::test {

/// One import of a loaded module: the place where the address of the imported function stands.
class Import {
  public:
    /// @param dll the name under which the module imports the function's library, in any letter
    /// case. Throws std::runtime_error, naming all three, when the module imports no such function.
    Import(HMODULE module, const char* dll, const char* function);

    void* address() const noexcept { return *place_; }

    /// Lets the module call another function from now on.
    void redirect(void* address) const;

  private:
    void** place_;
};

/// Replaces one import of a loaded module for as long as it lives:
///
///     ImportPatch<decltype(::Sleep)> sleep(libraryModule(), "KERNEL32.dll", "Sleep",
///                                          [&](DWORD ms) { slept += ms; });
///
/// The replacement is called on whatever thread calls the import. It reaches the real function by
/// its plain name (only the named module is patched) or through original().
///
/// Destruction restores the import and waits until no call is inside the replacement any more, so
/// that what it captured need not outlive the patch; a replacement that blocks must be released
/// before. Two patches made of the same lambda expression cannot live at once (std::runtime_error).
template <class Signature>
class ImportPatch;

template <class Result, class... Parameters>
class ImportPatch<Result(Parameters...)> {
  public:
    using Function = Result(Parameters...);

    template <class Replacement>
    ImportPatch(HMODULE module, const char* dll, const char* function, Replacement replacement)
        : import_(module, dll, function), original_(asFunction(import_.address())) {
        auto& hook = hookOf<Replacement>();
        if (hook.taken.exchange(true)) {
            throw std::runtime_error("this replacement stands in for an import already");
        }
        hook.replacement.emplace(std::move(replacement));
        hook.original = original_;
        hook.enabled = true;
        gate_ = &hook;
        forget_ = [] { hookOf<Replacement>().replacement.reset(); };
        import_.redirect(reinterpret_cast<void*>(&trampoline<Replacement>));
    }

    ImportPatch(const ImportPatch&) = delete;
    ImportPatch& operator=(const ImportPatch&) = delete;

    ~ImportPatch() {
        import_.redirect(reinterpret_cast<void*>(original_));
        gate_->enabled = false;
        while (gate_->inside != 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        forget_();
        gate_->taken = false;
    }

    Function* original() const noexcept { return original_; }

  private:
    struct Gate {
        std::atomic<bool> taken = false;    // by a living patch
        std::atomic<bool> enabled = false;  // calls go to the replacement
        std::atomic<int> inside = 0;        // of those, in progress
    };

    template <class Replacement>
    struct Hook : Gate {
        std::optional<Replacement> replacement;
        Function* original = nullptr;
    };

    // Never destroyed: a thread may have read the import just before it was restored.
    template <class Replacement>
    static Hook<Replacement>& hookOf() {
        static auto* const hook = new Hook<Replacement>;
        return *hook;
    }

    class CallInside {
      public:
        explicit CallInside(std::atomic<int>& count) : count_(count) { ++count_; }
        CallInside(const CallInside&) = delete;
        CallInside& operator=(const CallInside&) = delete;
        ~CallInside() { --count_; }

      private:
        std::atomic<int>& count_;
    };

    template <class Replacement>
    static Result trampoline(Parameters... arguments) {
        auto& hook = hookOf<Replacement>();
        {
            const CallInside call(hook.inside);
            if (hook.enabled) {
                return (*hook.replacement)(arguments...);
            }
        }
        // Nobody waits for these: a loop can keep the import's address, and comes here for ever.
        return hook.original(arguments...);
    }

    static Function* asFunction(void* address) { return reinterpret_cast<Function*>(address); }

    Import import_;
    Function* original_;
    Gate* gate_ = nullptr;
    void (*forget_)() = nullptr;
};

}  // namespace tez::test
