// The commands about installed bundles. An application that wants more of the world than it has is
// given it by whoever installs it.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>

#include "platform/base/Errors.h"
#include "tools/docsource/Accounts.h"
#include "tools/docsource/BundleInstaller.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Output.h"
#include "tools/docsource/World.h"

namespace tool {
namespace {

const char* nameOf(qx::BundleKind kind) {
  return kind == qx::BundleKind::application ? "application" : "extension";
}

qx::Dictionary describe(const qx::Bundle& bundle) {
  return {{"identifier", bundle.identifier},
          {"kind", nameOf(bundle.kind)},
          {"path", bundle.path},
          {"executable", bundle.executable}};
}

/// What an application wants; nothing where that cannot be told, which is a problem of its own.
std::vector<std::string> wishesOf(const qx::Bundle& bundle) {
  const auto world = World::wantedBy(bundle);
  return world ? world->words() : std::vector<std::string>();
}

/// Lets a person decide about what is wanted that the application before did not have.
std::optional<qx::Error> ask(const qx::Bundle& bundle, const qx::Bundle* before, bool isGiven) {
  const auto refused = [&](const std::string& what) {
    return qx::Error(std::string(QXStandardErrorDomain), qx::fileUnknownError, what);
  };
  const auto world = World::wantedBy(bundle);
  if (!world) return world.error();
  const auto had = before ? wishesOf(*before) : std::vector<std::string>();
  std::string text, list;
  for (const auto& word : world->words()) {
    if (std::find(had.begin(), had.end(), word) != had.end()) continue;
    text += "  " + onOneLine(word) + ": " + meaningOf(word) + "\n";
    list += (list.empty() ? "" : ", ") + word;
  }
  if (list.empty() || isGiven) return std::nullopt;
  if (::isatty(STDIN_FILENO) != 1) {
    return refused(bundle.identifier + " wants more than its documents (" + list +
                   "); to give it that: docsource install --yes");
  }
  std::fprintf(stderr, "%s wants more than its documents:\n%sInstall it? [y/N] ",
               onOneLine(bundle.identifier).c_str(), text.c_str());
  std::string line;
  std::getline(std::cin, line);
  if (line == "y" || line == "Y" || line == "yes") return std::nullopt;
  return refused("It was not installed.");
}

/// Whoever holds this decides about everybody's documents, its own sandbox notwithstanding.
void tellOfStanding(const qx::Bundle& bundle) {
  const char* entitlement = "com.veltro.docsource.acl-write";
  const qx::Value* held = qx::find(bundle.entitlements, entitlement);
  if (!held || !held->numberAsBool().value_or(false)) return;
  std::fprintf(stderr, "Note: %s may give any document to any program, itself included (%s).\n",
               onOneLine(bundle.identifier).c_str(), entitlement);
}

}  // namespace

int install(const Arguments& arguments) {
  const auto installation =
      installBundle(arguments.subject, [&](const qx::Bundle& one, const qx::Bundle* before) {
        return ask(one, before, arguments.yes);
      });
  if (!installation) return fail(arguments, installation.error());
  const auto& bundle = installation->bundle;
  tellOfStanding(bundle);
  qx::Dictionary object = describe(bundle);
  object["replaced"] = installation->replaced;
  return answer(arguments.json, object,
                std::string(installation->replaced ? "replaced " : "installed ") +
                    onOneLine(bundle.identifier) + " in " + onOneLine(bundle.path) + "\n");
}

int uninstall(const Arguments& arguments) {
  const auto paths = uninstallBundles(arguments.subject);
  if (!paths) return fail(arguments, paths.error());
  std::string text;
  for (const auto& path : *paths) text += "removed " + onOneLine(path) + "\n";
  return answer(arguments.json, {{"removed", qx::Array(paths->begin(), paths->end())}}, text);
}

int bundles(const Arguments& arguments) {
  qx::Array array;
  std::vector<std::vector<std::string>> rows;
  std::string wishes;
  for (const auto kind : {qx::BundleKind::application, qx::BundleKind::extension}) {
    for (const auto standing : {qx::BundleStanding::machine, qx::BundleStanding::user}) {
      const char* owner = standing == qx::BundleStanding::machine ? "machine" : "user";
      for (const auto& installed : installedBundles(kind, standing)) {
        qx::Dictionary object{{"kind", nameOf(kind)}, {"path", installed.path}};
        if (installed.bundle) {
          object = describe(*installed.bundle);
          auto problem = problemOfStarting(*installed.bundle);
          if (const auto world = World::wantedBy(*installed.bundle); !world && !problem) {
            problem = world.error().description();
          }
          if (problem) object["error"] = *problem;
          const auto wanted = wishesOf(*installed.bundle);
          if (!wanted.empty()) object["world"] = qx::Array(wanted.begin(), wanted.end());
          for (const auto& word : wanted) {
            wishes += onOneLine(installed.bundle->identifier) + " also gets " + onOneLine(word) +
                      ". " + meaningOf(word) + "\n";
          }
          rows.push_back({installed.bundle->identifier + (problem ? " (cannot start)" : ""),
                          nameOf(kind), owner, installed.path + (problem ? ": " + *problem : "")});
        } else {
          const auto text = inFamiliarWords(installed.bundle.error().description());
          object["error"] = installed.bundle.error().text();
          rows.push_back({"(broken)", nameOf(kind), owner, installed.path + ": " + text});
        }
        object["owner"] = owner;
        array.emplace_back(std::move(object));
      }
    }
  }
  return answer(arguments.json, {{"bundles", std::move(array)}},
                table({"IDENTIFIER", "KIND", "OWNER", "PATH"}, rows) + wishes);
}

}  // namespace tool
