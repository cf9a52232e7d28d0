#include "support/program_run.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <filesystem>

extern char** environ;

namespace moxtest {

namespace {

std::vector<std::string> buildEnvironment(const ProgramOptions& options) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry = *e;
    std::string name = entry.substr(0, entry.find('='));
    bool dropped = options.setEnv.count(name) != 0;
    for (const std::string& unset : options.unsetEnv) dropped |= unset == name;
    if (!dropped) env.push_back(entry);
  }
  for (const auto& [name, value] : options.setEnv) env.push_back(name + "=" + value);
  return env;
}

std::vector<char*> pointers(const std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (const std::string& s : strings) out.push_back(const_cast<char*>(s.c_str()));
  out.push_back(nullptr);
  return out;
}

}  // namespace

ProgramResult runProgram(const std::vector<std::string>& argv, const ProgramOptions& options) {
  ProgramResult result;
  const ScratchDir scratch;  // the captured output, gone with it
  const std::string outPath = options.stdoutPath.empty() ? scratch.file("out") : options.stdoutPath;
  const std::string errPath = scratch.file("err");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const std::vector<std::string> env = buildEnvironment(options);
  std::vector<char*> argp = pointers(argv), envp = pointers(env);
  pid_t pid;
  int spawned = posix_spawnp(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (spawned == 0) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) continue;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  if (options.stdoutPath.empty()) result.out = readFile(outPath);
  result.err = readFile(errPath);
  return result;
}

std::string olefilePython() {
  for (const char* python : {"/usr/bin/python3", "python3"}) {
    if (runProgram({python, "-c", "import olefile"}).status == 0) return python;
  }
  return "";
}

std::map<std::string, std::string> snapshotTree(const std::string& root) {
  namespace fs = std::filesystem;
  std::map<std::string, std::string> tree;
  std::error_code error;
  for (fs::recursive_directory_iterator it(root, error), end; !error && it != end; it.increment(error)) {
    const bool dir = it->symlink_status().type() == fs::file_type::directory;
    tree[it->path().lexically_relative(root).string()] = dir ? "<dir>" : readFile(it->path().string());
  }
  return tree;
}

}  // namespace moxtest
