// What the libraries lose in each handshake, told to the leak check by the name of who allocates it: the mechanism of
// NTLM its cipher contexts, Kerberos the principal of a named acceptor that has no key. Their frames are only seen
// with the slow unwinder.

extern "C" {

// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming)
const char* __asan_default_options() {
  return "fast_unwind_on_malloc=0";
}

// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming)
const char* __lsan_default_suppressions() {
  return "leak:gssntlmssp.so\nleak:krb5_build_principal\n";
}
}
