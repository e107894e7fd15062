#pragma once
// Runs the product's markup scan over the inputs of the reference and gives its outcome in the same
// form, so that the two can be compared.

#include <string_view>

#include "activecontent/kvactivecontent_html_internal.h"
#include "support/markup_reference.h"
#include "support/simd_levels.h"

// A scan job over the bytes as the reference's job describes it. The bytes are borrowed.
[[nodiscard]] kv_scanobject_ptr make_markup_job(const markup_reference_job& job,
                                                std::string_view bytes);

[[nodiscard]] markup_outcome markup_product_scan(
    const markup_reference_job& job, std::string_view bytes, const markup_answer& answer,
    const kv_markup_environment& environment = kv_markup_default_environment(),
    std::int64_t time_left_ms = KV_NO_TIME_LIMIT);

[[nodiscard]] kv_markup_environment markup_environment_at(kv_simd_level level);
