#include "caches/definition_reader.h"

#include <fcntl.h>
#include <filesystem>

#include "caches/definition_parser.h"
#include "caches/problems.h"
#include "caches/toml_document.h"
#include "caches/trusted_file.h"

namespace kelvane::caches {
namespace {

DefinitionResult oneProblem(const std::string& file, std::size_t line, std::string reason) {
  return {std::nullopt, {{file, line, std::move(reason)}}};
}

}  // namespace

DefinitionResult parseDefinition(std::string_view text, const std::string& file) {
  if (text.size() > largest_definition) return oneProblem(file, 0, "it is larger than 64 KiB");
  const TomlDocument document = parseToml(text);
  if (!document.error.empty()) return oneProblem(file, document.error_line, document.error);
  Problems problems(file);
  Definition definition = definitionOf(document.root, problems);
  if (!problems.none()) return {std::nullopt, problems.take()};
  definition.file = file;
  return {std::move(definition), {}};
}

DefinitionResult readDefinition(const std::string& path) { return readDefinitionAt(AT_FDCWD, path, path); }

DefinitionResult readDefinitionAt(int directory, const std::string& name, const std::string& path) {
  const TrustedFile file = readTrustedFile(directory, name.c_str(), largest_definition);
  if (!file.problem.empty()) return oneProblem(path, 0, file.problem);
  DefinitionResult result = parseDefinition(file.text, path);
  if (!result.definition) return result;
  const std::string expected = result.definition->name + ".toml";
  if (std::filesystem::path(path).filename() == expected) return result;
  return oneProblem(path, 0,
                    "the name " + inQuotes(result.definition->name) +
                        " differs from the file's: expected the file name " + expected);
}

}  // namespace kelvane::caches
