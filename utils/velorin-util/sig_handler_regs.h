// The registers that locate a fault, in the context that the kernel hands to a signal handler.
#ifndef VELORIN_sig_handler_regs_
#define VELORIN_sig_handler_regs_

#include <stdint.h>
#include <ucontext.h>

namespace {

struct FaultRegisters {
  uintptr_t stack;
  uintptr_t frame;
  uintptr_t instruction;
};

FaultRegisters fault_registers(const void* context) {
  const auto& regs = static_cast<const ucontext_t*>(context)->uc_mcontext.gregs;
#ifdef __i386__
  constexpr int kStack = REG_ESP;
  constexpr int kFrame = REG_EBP;
  constexpr int kInstruction = REG_EIP;
#else
  constexpr int kStack = REG_RSP;
  constexpr int kFrame = REG_RBP;
  constexpr int kInstruction = REG_RIP;
#endif
  return {static_cast<uintptr_t>(regs[kStack]), static_cast<uintptr_t>(regs[kFrame]),
          static_cast<uintptr_t>(regs[kInstruction])};
}

}  // namespace

#endif  // VELORIN_sig_handler_regs_
