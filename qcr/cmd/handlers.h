// The subcommand handlers of the main tool. The driver checks the number of
// positional arguments and the required options before it calls one, so each
// handler receives exactly the arguments its subcommand takes. Every handler
// prints its own output and failure messages and returns 0 or a result code
// (qcr/comm/result.h), which the driver turns into the exit status.
//
// Process-wide settings (port, -Y, security mode) come from programSettings().
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qcr/cmd/options.h"
#include "qcr/cmd/remote_args.h"

namespace qcr {

using StringList = std::vector<std::string>;

// Server control: echo, trace, msglevel and netdown share one request; name is the
// subcommand as typed and args the remaining words.
[[nodiscard]] int DebugCommand(const std::string& name, const StringList& nodeList,
                               const StringList& args);
[[nodiscard]] int Dump(const StringList& nodeList);
[[nodiscard]] int Quit(const StringList& nodeList);
[[nodiscard]] int Show();

// Local state inspection and repair: never contact a server.
[[nodiscard]] int ReadPaxos(const std::string& localPath);
[[nodiscard]] int PatchPaxos(const std::string& inFile, const std::string& committedDir,
                             const std::string& outFile);

// Setup and initialisation. Setup reads nodeList, force, certFile, forceRestore;
// Init reads clusterId, nodeList, diskList, disksDir, initNumber, minQuorumNodes,
// archivePath.
[[nodiscard]] int Setup(const CommandLine& cmd);
[[nodiscard]] int Init(const CommandLine& cmd);
[[nodiscard]] int Auth(const StringList& nodeList);
[[nodiscard]] int Refresh(const StringList& nodeList);
[[nodiscard]] int Backup(const std::string& archivePath);

// Values and files; version -1 means none (no explicit version, no condition).
[[nodiscard]] int VList();
[[nodiscard]] int VGet(const std::string& name);
[[nodiscard]] int VPut(const std::string& name, const std::string& value, int32_t newVersion,
                       int32_t condVersion);
[[nodiscard]] int VDel(const std::string& name, int32_t condVersion);
[[nodiscard]] int FList();
[[nodiscard]] int FGet(const std::string& name, const std::string& localPath,
                       int32_t condVersion);
[[nodiscard]] int FPut(const std::string& name, const std::string& localPath, int32_t newVersion,
                       int32_t condVersion);
[[nodiscard]] int FDel(const std::string& name, int32_t condVersion);
[[nodiscard]] int Query();

// Node and disk lists. ChDisks reads diskList, disksDir, force, diskOptionMask and
// minQuorumNodes.
[[nodiscard]] int ChNodes(const StringList& nodeList, bool force, uint8_t nodeChangeMode);
[[nodiscard]] int LsNodes();
[[nodiscard]] int ChDisks(const CommandLine& cmd);
[[nodiscard]] int LsDisks();

// Health checks; extendedCheck also asks the servers.
[[nodiscard]] int Check(bool extendedCheck);

// The qcrsh and qcrcp personalities, after their arguments were checked. Their
// result becomes the exit status (see remoteExitStatus in qcr/cmd/driver.h).
// RemoteCopy: every source is local and the target remote (copy-to), or every
// source remote and the target local (copy-from).
[[nodiscard]] int RemoteShell(const std::string& host, const RemoteCommand& command);
[[nodiscard]] int RemoteCopy(const std::vector<CopyEndpoint>& sources, const CopyEndpoint& target);

}  // namespace qcr
