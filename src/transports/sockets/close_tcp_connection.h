// The normal end of a connection.
#pragma once

#include <exception>

/// The peer ended the stream.
class CCloseTCPConnection : public std::exception {
 public:
  const char* what() const noexcept override { return "TCP stream was closed"; }
};
