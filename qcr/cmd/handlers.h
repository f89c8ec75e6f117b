// The subcommand handlers of the main tool. The driver checks the number of
// positional arguments and the required options before it calls one, so each
// handler receives exactly the arguments its subcommand takes. Every handler
// prints its own output and failure messages and returns 0 or a result code
// (qcr/comm/result.h), which the driver turns into the exit status.
//
// Handlers that talk to the servers take the run's CommandContext (command line,
// settings, client); the others take only what they use.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qcr/cmd/context.h"
#include "qcr/cmd/options.h"
#include "qcr/cmd/remote_args.h"

namespace qcr {

using StringList = std::vector<std::string>;

// Server control: echo, trace, msglevel and netdown share one request (the
// subcommand as typed and the positional arguments); they, dump and quit ask every
// server of -n or of the local node list. show prints the client's view.
[[nodiscard]] int DebugCommand(CommandContext& ctx);
[[nodiscard]] int DumpCommand(CommandContext& ctx);
[[nodiscard]] int QuitCommand(CommandContext& ctx);
[[nodiscard]] int ShowCommand(CommandContext& ctx);

// Local state inspection and repair: never contact a server.
[[nodiscard]] int ReadPaxosCommand(const std::string& localPath);
[[nodiscard]] int PatchPaxosCommand(const std::string& inFile, const std::string& committedDir,
                                    const std::string& outFile);

// What a handler returns after it printed a usage error itself: the run ends
// with the usage exit status.
inline constexpr int kHandlerUsageError = -1000;

// Setup and initialisation. Setup reads nodeList, force, certFile, forceRestore
// and the -a setting; Init reads clusterId, nodeList, diskList, disksDir,
// minQuorumNodes, archivePath; Backup reads archivePath.
[[nodiscard]] int SetupCommand(CommandContext& ctx);
[[nodiscard]] int InitCommand(CommandContext& ctx);
[[nodiscard]] int BackupCommand(CommandContext& ctx);
// Authentication on the quorum nodes of the local node list: auth turns it on
// (with the local keys, made as generation 1 when there are none), refresh rolls
// it to a new key generation.
[[nodiscard]] int AuthCommand(CommandContext& ctx);
[[nodiscard]] int RefreshCommand(CommandContext& ctx);

// Values and files; version -1 means none (no explicit version, no condition).
[[nodiscard]] int VlistCommand(CommandContext& ctx);
[[nodiscard]] int VgetCommand(CommandContext& ctx, const std::string& name);
[[nodiscard]] int VputCommand(CommandContext& ctx, const std::string& name,
                              const std::string& value, int32_t newVersion, int32_t condVersion);
[[nodiscard]] int VdelCommand(CommandContext& ctx, const std::string& name,
                              int32_t condVersion);
[[nodiscard]] int FlistCommand(CommandContext& ctx);
[[nodiscard]] int FgetCommand(CommandContext& ctx, const std::string& name,
                              const std::string& localPath, int32_t condVersion);
[[nodiscard]] int FputCommand(CommandContext& ctx, const std::string& name,
                              const std::string& localPath, int32_t newVersion,
                              int32_t condVersion);
[[nodiscard]] int FdelCommand(CommandContext& ctx, const std::string& name,
                              int32_t condVersion);
[[nodiscard]] int QueryCommand(CommandContext& ctx);

// Node and disk lists. ChNodes reads nodeList, force and nodeChangeMode; ChDisks
// diskList, disksDir, force, diskOptionMask and minQuorumNodes; the listings and
// config the -Y setting. config (hidden) prints the node listing, an empty line
// and the disk listing, after one prologue.
[[nodiscard]] int ChNodesCommand(CommandContext& ctx);
[[nodiscard]] int LsNodesCommand(CommandContext& ctx);
[[nodiscard]] int ChDisksCommand(CommandContext& ctx);
[[nodiscard]] int LsDisksCommand(CommandContext& ctx);
[[nodiscard]] int ConfigCommand(CommandContext& ctx);

// Health checks; with extendedCheck (-e) also those that ask the servers; -Y
// prints records.
[[nodiscard]] int CheckCommand(CommandContext& ctx);

// The qcrsh and qcrcp personalities, after their arguments were checked. Their
// result becomes the exit status (see remoteExitStatus in qcr/cmd/driver.h).
// RemoteCopy: every source is local and the target remote (copy-to), or every
// source remote and the target local (copy-from).
[[nodiscard]] int RemoteShell(const std::string& host, const RemoteCommand& command);
[[nodiscard]] int RemoteCopy(const std::vector<CopyEndpoint>& sources, const CopyEndpoint& target);

}  // namespace qcr
