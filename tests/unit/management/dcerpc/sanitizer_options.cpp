// What the libraries lose in each handshake, told to the leak check by who allocates it: the mechanism of NTLM its
// cipher contexts, which are libcrypto's (our own code uses nothing of it that has to be freed), Kerberos the principal
// of a named acceptor that has no key.

// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" const char* __lsan_default_suppressions() {
  return "leak:gssntlmssp.so\nleak:libcrypto.so\nleak:krb5_build_principal\n";
}
