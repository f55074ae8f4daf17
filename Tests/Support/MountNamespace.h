// Runs a test again, as root, inside scripts/sandbox.sh: a private mount
// namespace whose /Library, /Applications, root's home and /bin tools are
// folders of a temporary sandbox, so code that insists on those paths is tested
// without touching the real ones. Usage, at the top of a test body:
//
//     TestSupport::TemporaryDirectory sandbox("sandbox");
//     if (!TestSupport::insideSandbox(sandbox.path())) return;  // the child ran it
//     ... from here on in a fresh process inside the namespace ...
//
// Header only: it needs TOVIK_SOURCE_DIR, which only the test programs define.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "Support/TestSupport.h"

namespace TestSupport {

/// In the test process: runs the current test in its own executable through
/// scripts/sandbox.sh over sandbox with `environment` ("SANDBOX_BINDS=...",
/// "SANDBOX_LIBRARY=none") added, fails the test with the child's wait status
/// and output unless the child passed it, and returns false. In the child:
/// returns true. No path or value may hold a single quote.
inline bool insideSandbox(const std::filesystem::path& sandbox, std::vector<std::string> environment = {}) {
    if (getenv("TOVIK_IN_SANDBOX")) return true;
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::filesystem::path output = sandbox / "test-output.txt";
    environment.insert(environment.end(),
                       {"TOVIK_IN_SANDBOX=1", "bash", TOVIK_SOURCE_DIR "/scripts/sandbox.sh", sandbox.string(),
                        std::filesystem::read_symlink("/proc/self/exe").string(),
                        std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name()});
    // The child must not write the test process's result files nor run a shard.
    std::string command = "env -u GTEST_OUTPUT -u GTEST_SHARD_INDEX -u GTEST_TOTAL_SHARDS";
    for (const auto& word : environment) command += " '" + word + "'";
    int status = std::system((command + " > '" + output.string() + "' 2>&1").c_str());
    std::string text = readFile(output);
    EXPECT_TRUE(status == 0 && text.find("[  PASSED  ] 1 test.") != std::string::npos)
        << "in the sandbox, wait status " << status << ":\n" << text;
    return false;
}

/// SANDBOX_BINDS for a user database of files only (written into sandbox) in
/// which root's home is rootHome, or root has no entry when rootHome is empty.
inline std::string userDatabaseBinds(const std::filesystem::path& sandbox, const std::string& rootHome) {
    std::string passwd = "daemon:x:1:1:daemon:/usr/sbin:/usr/sbin/nologin\n";
    if (!rootHome.empty()) passwd = "root:x:0:0:root:" + rootHome + ":/bin/bash\n" + passwd;
    writeFile(sandbox / "passwd", passwd);
    writeFile(sandbox / "nsswitch.conf", "passwd: files\ngroup: files\n");
    return "SANDBOX_BINDS=/etc/passwd=" + (sandbox / "passwd").string() +
           "\n/etc/nsswitch.conf=" + (sandbox / "nsswitch.conf").string();
}

}  // namespace TestSupport
