// The commands about installed bundles.

#include "tools/docsource/Accounts.h"
#include "tools/docsource/BundleInstaller.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Output.h"

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

}  // namespace

int install(const Arguments& arguments) {
  const auto installation = installBundle(arguments.subject);
  if (!installation) return fail(arguments, installation.error());
  const auto& bundle = installation->bundle;
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
  for (const auto kind : {qx::BundleKind::application, qx::BundleKind::extension}) {
    for (const auto standing : {qx::BundleStanding::machine, qx::BundleStanding::user}) {
      const char* owner = standing == qx::BundleStanding::machine ? "machine" : "user";
      for (const auto& installed : installedBundles(kind, standing)) {
        qx::Dictionary object{{"kind", nameOf(kind)}, {"path", installed.path}};
        if (installed.bundle) {
          object = describe(*installed.bundle);
          const auto problem = problemOfStarting(*installed.bundle);
          if (problem) object["error"] = *problem;
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
                table({"IDENTIFIER", "KIND", "OWNER", "PATH"}, rows));
}

}  // namespace tool
