// tvucon_options.cpp - the command line of the tvucon client, on CLI11.
#include "tvucon/tvucon_options.h"

#include <CLI/CLI.hpp>

#include <iostream>

#ifndef TVUCON_VERSION
#define TVUCON_VERSION "0"
#endif

namespace {

constexpr const char* kTreePaths = "tree paths: a catalog item a/b.txt is /a/b.txt; C:/x/y is /C/x/y";

void AddTreeOptions(CLI::App* cmd, TvuconOptions* o) {
  cmd->add_option("--rules", o->rules, "mapper rules file that places disk images in the tree");
  cmd->add_flag("--rct", o->rct, "Hyper-V RCT disks instead of VMDK disks and rules")->excludes("--rules");
  cmd->add_flag("--build-cache", o->buildCache,
                "build the whole tree while opening (its notes go to standard error)");
}

}  // namespace

int ParseTvuconOptions(int argc, char** argv, TvuconOptions* o, std::string* error) {
  CLI::App app("tvucon: consolidates a chain of savesets through the tvu_con module, checks it, and shows it as "
               "one file tree",
               "tvucon");
  app.fallthrough();  // the shared options may stand after the command too
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("tvucon ") + TVUCON_VERSION);
  app.footer(std::string(kTreePaths) +
             "\nthe options above may also stand after the command; 'tvucon COMMAND --help' shows its own"
             "\nexit status: 0 ok, 1 failure, 2 bad command line");

  app.add_option("-s,--saveset", o->saveset, "the saveset to consolidate (names the chain)");
  app.add_option("--ini", o->ini, "product INI file (sets TQ_INI)");
  app.add_option("--module", o->module, "the module to load (default: libtvu_con.so beside tvucon)");
  app.add_option("--trace-file", o->traceFile, "append the module's trace to FILE");
  app.add_option("--log-level", o->logLevel, "show log lines up to LEVEL (1500 errors, 3500 progress, 4000 details)")
      ->check(CLI::Range(1, 100000));
  app.add_flag("-q,--quiet", o->quiet, "no progress and no summary");
  app.add_option("--progress", o->progress, "auto (a bar on a terminal), bar, plain (a line every few seconds), none")
      ->check(CLI::IsMember({"auto", "bar", "plain", "none"}));

  CLI::App* consolidate = app.add_subcommand("consolidate", "stream the new full saveset");
  consolidate->add_option("-o,--output", o->output, "FILE, or - for standard output (default)");
  consolidate->add_option("--block-size", o->blockSize, "bytes asked of the module per block (1 to 67108864)")
      ->check(CLI::Range(1u, 64u << 20));
  consolidate->add_flag("--raw", o->raw, "the module's stream as it is, without the closing trailer record");
  consolidate->add_flag("--close-archive", o->closeArchive, "end with a trailer record (the default)")->excludes("--raw");
  consolidate->add_flag("--no-check", o->noCheck, "stream without checking the chain first");
  consolidate->add_option("--catalog", o->catalogOut, "write the new saveset's catalog (LSL version 2) to FILE");
  consolidate->add_option("--catalog-name", o->catalogName, "the new saveset's name in that catalog (default: the --saveset)");
  consolidate->add_flag("--verify", o->verify, "check every record of the stream against its catalog line");
  consolidate->add_option("--resume-from", o->resumeFrom, "continue a cut consolidation at BYTES of --output FILE");

  CLI::App* check = app.add_subcommand("check", "check the chain before streaming: every problem, with file and line");
  check->add_flag("--json", o->json, "one JSON object per problem, and a summary object");
  check->add_flag("--no-records", o->noRecords, "check the catalog only, not the records at the items' offsets");

  app.add_subcommand("info", "describe the module");

  CLI::App* ls = app.add_subcommand("ls", "list folders of the tree");
  CLI::App* stat = app.add_subcommand("stat", "describe items of the tree");
  CLI::App* cat = app.add_subcommand("cat", "write files of the tree to standard output");
  CLI::App* find = app.add_subcommand("find", "list the whole tree below paths");
  for (CLI::App* cmd : {ls, stat, cat, find}) {
    cmd->add_option("paths", o->paths, "tree paths");
    AddTreeOptions(cmd, o);
  }
  for (CLI::App* cmd : {ls, stat, find}) cmd->add_flag("--json", o->json, "one JSON object per item");
  find->add_flag("--paths", o->findPaths, "only the paths, one per line, as find(1) prints them");
  find->add_flag("-0,--null", o->nul, "end each path with a NUL instead of a line end (implies --paths)");

  CLI::App* exportCmd = app.add_subcommand("export", "copy a tree path to a local folder");
  exportCmd->add_option("path", o->path, "tree path")->required();
  exportCmd->add_option("folder", o->destination, "local folder")->required();
  exportCmd->add_flag("--force", o->force, "overwrite files that exist");
  AddTreeOptions(exportCmd, o);

  CLI::App* mount = app.add_subcommand("mount", "mount the tree read-only (FUSE)");
  mount->add_option("mountpoint", o->path, "local folder")->required();
  mount->add_flag("-f,--foreground", o->foreground, "stay in the foreground");
  mount->add_flag("--debug", o->debug, "log every request on standard error (implies --foreground)");
  AddTreeOptions(mount, o);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForVersion& e) {
    std::cout << e.what() << std::endl;
    return 0;
  } catch (const CLI::Success& e) {
    app.exit(e, std::cout, std::cerr);
    return 0;
  } catch (const CLI::ParseError& e) {
    // CLI11 says "A subcommand is required" for an empty command line.
    *error = argc < 2 ? "missing command" : e.what();
    return 2;
  }

  o->command = app.get_subcommands().front()->get_name();
  o->resume = consolidate->count("--resume-from") > 0;
  if (o->nul) o->findPaths = true;
  if (o->quiet) o->progress = "none";
  if (o->command != "info" && o->saveset.empty()) {
    *error = o->command + " needs --saveset NAME";
    return 2;
  }
  if (o->command == "cat" && o->paths.empty()) {
    *error = "cat needs a tree path";
    return 2;
  }
  if (o->paths.empty()) o->paths.push_back("/");
  if (o->resume && o->output == "-") {
    *error = "--resume-from needs --output FILE (the file the cut consolidation wrote)";
    return 2;
  }
  if (o->catalogName.empty()) o->catalogName = o->saveset;
  return -1;
}
