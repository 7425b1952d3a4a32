// How clips and verdicts are told to a person and to a program.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tool/clip/reader.h"
#include "tool/clip/recipe.h"
#include "tool/clip/verifier.h"

namespace clip {

using Json = nlohmann::ordered_json;

[[nodiscard]] Json RecipeJson(const ClipRecipe& recipe);

// The reader has read its header without a problem.
[[nodiscard]] std::string InfoText(const std::string& name, const ClipImageReader& reader);
[[nodiscard]] Json InfoJson(const std::string& name, const ClipImageReader& reader);

[[nodiscard]] std::string VerdictText(const std::string& name, const ClipVerdict& verdict);
[[nodiscard]] Json VerdictJson(const std::string& name, const ClipVerdict& verdict);

}  // namespace clip
