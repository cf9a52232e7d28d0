// Exit, running a command, sleeping.
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "moxvos.h"
#include "support/vos_scratch.h"

namespace {

int gExitChannel = -1;

void reportAtExit() {
  char byte = 'e';
  if (write(gExitChannel, &byte, 1) != 1) _exit(99);
}

double seconds() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec + now.tv_nsec / 1e9;
}

TEST(VosProcess, ExitEndsTheProcessThroughExit) {
  int channel[2];
  ASSERT_EQ(0, pipe(channel));
  int code = moxtest::runInChild([&]() -> int {
    gExitChannel = channel[1];
    atexit(reportAtExit);  // exit(), not _exit(): handlers run
    moxvos_exit(7);
  });
  close(channel[1]);
  EXPECT_EQ(7, code);
  char byte = 0;
  EXPECT_EQ(1, read(channel[0], &byte, 1));
  EXPECT_EQ('e', byte);
  close(channel[0]);
}

TEST(VosProcess, SystemReturnsTheWaitStatus) {
  int status = moxvos_system("exit 3");
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(3, WEXITSTATUS(status));
  EXPECT_EQ(0, moxvos_system("true"));
  EXPECT_NE(0, moxvos_system(nullptr));  // a shell is available
}

void onAlarm(int) {}

TEST(VosProcess, UsleepAnswersZeroEvenWhenInterrupted) {
  double start = seconds();
  EXPECT_EQ(0, moxvos_usleep(20000));
  EXPECT_GE(seconds() - start, 0.019);
  EXPECT_EQ(0, moxvos_usleep(0));

  struct sigaction action, previous;
  memset(&action, 0, sizeof action);
  action.sa_handler = onAlarm;  // no SA_RESTART: the sleep is cut short
  ASSERT_EQ(0, sigaction(SIGALRM, &action, &previous));
  struct itimerval timer = {{0, 0}, {0, 50000}};
  ASSERT_EQ(0, setitimer(ITIMER_REAL, &timer, nullptr));
  start = seconds();
  EXPECT_EQ(0, moxvos_usleep(5000000));
  EXPECT_LT(seconds() - start, 4.0);
  sigaction(SIGALRM, &previous, nullptr);
}

TEST(VosProcess, DummyDoesNothing) { moxvos_dummy(); }

}  // namespace
