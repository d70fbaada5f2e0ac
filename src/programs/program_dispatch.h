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

using procedure_handler_t = void (*)(SProcedureCall& call);

/// A row of a program's table. Made by one of the three functions below, so that the handler is there exactly when the
/// answer is Procedure.
struct SProcedure {
  std::uint32_t number;
  const char* name;
  const char* traceLine;  ///< Verbose line on entry; null when there is none or the handler writes it.
  procedure_answer_t answer;
  std::size_t replySize;        ///< Bytes that the result usually needs; a hint.
  procedure_handler_t handler;  ///< Throws when the arguments do not decode.
};

consteval SProcedure ServedRow(std::uint32_t number, const char* name, const char* traceLine, std::size_t replySize,
                               procedure_handler_t handler) {
  return {number, name, traceLine, procedure_answer_t::Procedure, replySize, handler};
}

consteval SProcedure PlainRow(std::uint32_t number, const char* name, const char* traceLine) {
  return {number, name, traceLine, procedure_answer_t::PlainSuccess, 0, nullptr};
}

consteval SProcedure UnavailableRow(std::uint32_t number, const char* name, const char* traceLine) {
  return {number, name, traceLine, procedure_answer_t::Unavailable, 0, nullptr};
}

struct SProgram {
  std::uint32_t program;
  std::uint32_t version;
  std::span<const SProcedure> procedures;  ///< Row n describes procedure n.
  const char* notFoundLine;                ///< For a number past the table; %1 is the number.
};

/// True when the table has a row for each number up to the highest, in their order; for static_assert beside it.
consteval bool IsTableSound(std::span<const SProcedure> procedures, std::uint32_t highestNumber) {
  if (procedures.size() != std::size_t{highestNumber} + 1)
    return false;
  for (std::size_t i = 0; i < procedures.size(); ++i) {
    if (procedures[i].number != i)
      return false;
  }
  return true;
}

/// The first part of DispatchCall, for a program that ends some of its calls later: the row whose handler is to be run,
/// with the reader at the arguments and the xid in the writer; or null, with the whole reply in the writer.
const SProcedure* OpenCall(const SProgram& program, bool isClientAllowed, CXDRReader& reader, CXDRWriter& writer);

/// IXdrRpcInterface::ProcessCall for the program of a table. Throws when the record cannot be decoded; nothing of
/// writer may be sent then.
void DispatchCall(const SProgram& program, bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader,
                  CXDRWriter& writer, CVirtualFs& fs);
