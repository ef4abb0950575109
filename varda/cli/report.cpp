// SPDX-License-Identifier: Apache-2.0
#include "varda/cli/report.h"

#include <fmt/format.h>

#include <filesystem>

#include "varda/cli/at_root.h"
#include "varda/cli/model_source.h"
#include "varda/cli/table_sink.h"
#include "varda/folder/run_folder.h"
#include "varda/html_report/html_report.h"

namespace varda {

exit_status write_report(const report_request& request, const job& peers) {
  return at_root(peers, [&] {
    if (!std::filesystem::is_directory(request.folder))
      throw bad_input({.code = "E-RUN-FOLDER",
                       .message = "there is no such folder",
                       .remedy = "give a folder that varda fit or varda evaluate has written",
                       .file = request.folder});
    const model_source source(request.folder, {});
    const population_model model(source.specification(), source.data());
    const drawn_parameters at = source.parameters(model);
    const stored_fit& fit = *source.fit();
    const std::string title = fit.title.empty()
                                  ? std::filesystem::path(fit.about.model_path).filename().string()
                                  : fit.title;
    const std::string page = html_page(
        title, report_data({fit, model, at},
                           {.replicates = request.replicates, .threads = request.threads}));
    std::string written = request.output;
    if (written.empty()) {
      run_folder folder(request.folder, fit.about.task, {report_name});
      folder.add_to_run(report_name, page);
      written = (folder.path() / report_name).string();
    } else {
      table_sink out(written);
      out.write(page);
      out.finish();
    }
    fmt::print("Report in {}\n", written);
  });
}

}  // namespace varda
