// A device's start-up has nobody who could be asked for a pass phrase.
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include "roots_process.h"

using namespace roots_support;

namespace {

constexpr char pass_phrase[] = "open sesame";

// Ends this process: with 0 if the encrypted file was skipped with its line.
[[noreturn]] void skip_encrypted_and_exit() {
  x509_store store = make_store();
  bool skipped = pki_ver_setup_trust_roots(store.get(), 0) == 1 && ca_labels() == texts{"root"} &&
                 logged_containing(3, "failed to convert cert /etc/pki/roots/encrypted.pem: ");
  store.reset();
  _exit(skipped ? 0 : 1);
}

int exit_code_of(pid_t child) {
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

FRESH_PROCESS_TEST(DeviceFolderPromptDeathTest, ATerminalIsNotAsked) {
  device.write("encrypted.pem", encrypted_pem(device_root("encrypted"), pass_phrase));
  int terminal = -1;
  fflush(nullptr);
  pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  ASSERT_GE(child, 0);
  if (child == 0)
    skip_encrypted_and_exit();
  std::string shown;
  char buffer[256];
  ssize_t length;
  while ((length = read(terminal, buffer, sizeof buffer)) > 0) {
    shown.append(buffer, static_cast<size_t>(length));
    // Whoever asks gets an answer, so that nobody waits for ever.
    std::string answer = std::string(pass_phrase) + "\n";
    EXPECT_EQ(static_cast<ssize_t>(answer.size()), write(terminal, answer.data(), answer.size()));
  }
  close(terminal);
  EXPECT_EQ(0, exit_code_of(child));
  EXPECT_EQ("", shown);
}

FRESH_PROCESS_TEST(DeviceFolderPromptDeathTest, StandardInputIsNotRead) {
  device.write("encrypted.pem", encrypted_pem(device_root("encrypted"), pass_phrase));
  std::string answer = std::string(pass_phrase) + "\n";
  int input[2], output[2];
  ASSERT_EQ(0, pipe(input));
  ASSERT_EQ(0, pipe(output));
  ASSERT_EQ(static_cast<ssize_t>(answer.size()), write(input[1], answer.data(), answer.size()));
  close(input[1]);
  fflush(nullptr);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    setsid();  // without a terminal
    dup2(input[0], 0);
    dup2(output[1], 1);
    dup2(output[1], 2);
    skip_encrypted_and_exit();
  }
  close(output[1]);
  EXPECT_EQ(0, exit_code_of(child));
  char buffer[256];
  EXPECT_EQ(0, read(output[0], buffer, sizeof buffer));
  EXPECT_EQ(static_cast<ssize_t>(answer.size()), read(input[0], buffer, sizeof buffer));
  close(output[0]);
  close(input[0]);
}

}  // namespace
