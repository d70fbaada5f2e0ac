// The one road of a call through any of the three programs.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "rpc/rpc_message.h"

/// What a procedure works with. The reader stands at the arguments; the writer holds the xid.
struct SProcedureCall {
  const sockaddr_in& peer;
  CXDRReader& reader;
  CXDRWriter& writer;
  CVirtualFs& fs;
};

enum class procedure_answer_t {
  Procedure,     ///< The handler writes the reply header and the result.
  PlainSuccess,  ///< An accepted reply without a body; arguments are not read.
  Unavailable    ///< The refusing reply; arguments are not read.
};

/// A row of a program's table.
struct SProcedure {
  std::uint32_t number;
  const char* name;
  const char* traceLine;  ///< Verbose line on entry; null when there is none or the handler writes it.
  procedure_answer_t answer;
  std::size_t replySize = 0;                        ///< Bytes that the result usually needs; a hint.
  void (*handler)(SProcedureCall& call) = nullptr;  ///< With Procedure alone. Throws when the arguments do not decode.
};

struct SProgram {
  std::uint32_t program;
  std::uint32_t version;
  std::span<const SProcedure> procedures;  ///< Row n describes procedure n.
  const char* notFoundLine;                ///< For a number past the table; %1 is the number.
};

/// True when row n has number n and a handler exactly where one is needed; for static_assert beside each table.
consteval bool IsTableSound(std::span<const SProcedure> procedures) {
  for (std::size_t i = 0; i < procedures.size(); ++i) {
    if (procedures[i].number != i)
      return false;
    if ((procedures[i].handler != nullptr) != (procedures[i].answer == procedure_answer_t::Procedure))
      return false;
  }
  return true;
}

/// IXdrRpcInterface::ProcessCall for the program of a table. Throws when the record cannot be decoded; nothing of
/// writer may be sent then.
void DispatchCall(const SProgram& program, bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader,
                  CXDRWriter& writer, CVirtualFs& fs);
