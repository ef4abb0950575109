// SPDX-License-Identifier: Apache-2.0
#include "varda/folder/manifest.h"

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "varda/support/digest.h"

namespace varda {

namespace {

using nlohmann::ordered_json;

constexpr int manifest_schema = 1;

}  // namespace

bool manifest::lists(const std::string& name) const {
  return std::any_of(files.begin(), files.end(), [&](const file& f) { return f.name == name; });
}

std::string manifest_text(const manifest& what) {
  ordered_json text;
  text["manifest_version"] = manifest_schema;
  text["task"] = what.task;
  text["version"] = what.version;
  text["model"] = {{"path", what.model_path}, {"sha256", what.model_sha256}};
  text["data"] = {{"path", what.data_path},
                  {"sha256", what.data_sha256},
                  {"observations_sha256", what.observations_sha256},
                  {"doses_sha256", what.doses_sha256}};
  text["seed"] = what.seed;
  text["settings"] = what.settings;
  text["files"] = ordered_json::array();
  for (const manifest::file& f : what.files)
    text["files"].push_back({{"name", f.name}, {"size", f.size}, {"sha256", f.sha256}});
  return text.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

std::optional<manifest> read_manifest(const std::string& text) {
  try {
    const ordered_json from = ordered_json::parse(text);
    if (from.at("manifest_version") != manifest_schema) return std::nullopt;
    manifest what;
    what.task = from.at("task");
    what.version = from.at("version");
    what.model_path = from.at("model").at("path");
    what.model_sha256 = from.at("model").at("sha256");
    what.data_path = from.at("data").at("path");
    what.data_sha256 = from.at("data").at("sha256");
    what.observations_sha256 = from.at("data").at("observations_sha256");
    what.doses_sha256 = from.at("data").at("doses_sha256");
    what.seed = from.at("seed");
    what.settings = from.at("settings").get<std::map<std::string, std::string>>();
    for (const ordered_json& f : from.at("files"))
      what.files.push_back({f.at("name"), f.at("size"), f.at("sha256")});
    // A name that leads out of the folder is none that a run wrote.
    const auto leads_out = [](const manifest::file& f) {
      return f.name.empty() || f.name.find('/') != std::string::npos || f.name == "..";
    };
    if (std::any_of(what.files.begin(), what.files.end(), leads_out)) return std::nullopt;
    return what;
  } catch (const ordered_json::exception&) {
    return std::nullopt;
  }
}

std::optional<manifest> manifest_of(const std::string& folder, const file_access& files) {
  const auto bytes = files((std::filesystem::path(folder) / manifest_name).string());
  return bytes ? read_manifest(*bytes) : std::nullopt;
}

}  // namespace varda
