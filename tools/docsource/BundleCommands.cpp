// The commands about installed bundles.

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
  if (!installation) return fail(installation.error());
  const auto& bundle = installation->bundle;
  qx::Dictionary object = describe(bundle);
  object["replaced"] = installation->replaced;
  return answer(arguments.json, object,
                std::string(installation->replaced ? "replaced " : "installed ") +
                    onOneLine(bundle.identifier) + " in " + onOneLine(bundle.path) + "\n");
}

int uninstall(const Arguments& arguments) {
  const auto paths = uninstallBundles(arguments.subject);
  if (!paths) return fail(paths.error());
  std::string text;
  for (const auto& path : *paths) text += "removed " + onOneLine(path) + "\n";
  return answer(arguments.json, {{"removed", qx::Array(paths->begin(), paths->end())}}, text);
}

int bundles(const Arguments& arguments) {
  qx::Array array;
  std::vector<std::vector<std::string>> rows;
  for (const auto kind : {qx::BundleKind::application, qx::BundleKind::extension}) {
    for (const auto& installed : installedBundles(kind)) {
      if (installed.bundle) {
        array.emplace_back(describe(*installed.bundle));
        rows.push_back({installed.bundle->identifier, nameOf(kind), installed.path});
      } else {
        const auto& error = installed.bundle.error();
        array.emplace_back(qx::Dictionary{
            {"kind", nameOf(kind)}, {"path", installed.path}, {"error", error.text()}});
        rows.push_back({"(broken)", nameOf(kind), installed.path + ": " + error.text()});
      }
    }
  }
  return answer(arguments.json, {{"bundles", std::move(array)}},
                table({"IDENTIFIER", "KIND", "PATH"}, rows));
}

}  // namespace tool
