/* summary.json of an align-batch run (see batch_summary.h), built with nlohmann-json without
   exceptions and written through a safe save. No globals; no X11. */
#define JSON_NOEXCEPTION
#include "batch_summary.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>

#include "safe_save.h"

using json = nlohmann::ordered_json;

static json number(double v)
{
    if (!std::isfinite(v)) return json(nullptr);
    return json(v);
}

static json triple(const float *v) { return json::array({number(v[0]), number(v[1]), number(v[2])}); }

int write_batch_summary(const char *file_name, const batch_record *r)
{
    json j;
    j["program"] = "align-batch";
    j["version"] = r->version;
    j["individual"] = r->individual;
    j["template"] = r->template_name;
    j["mask"] = r->mask[0] != '\0' ? json(r->mask) : json(nullptr);
    j["output_directory"] = r->out_dir;
    j["search"] = r->search;
    j["nonlinear"] = r->nonlinear != 0;

    json p;
    p["translations_mm"] = triple(r->parameters);
    p["rotations_degrees"] = triple(r->parameters + 3);
    p["inflations"] = triple(r->parameters + 6);
    p["skews"] = triple(r->parameters + 9);
    p["orientation_quarter_turns"] = json::array({r->orientation.x, r->orientation.y, r->orientation.z});
    p["orientation_swap_z"] = r->swap_z;
    j["parameters"] = p;

    if (strcmp(r->search, "accurate") == 0) {
        json s;
        s["translations_from_centres_of_mass_mm"] = triple(r->start_translation);
        s["orientations_compared"] = r->orientations_tried;
        j["start"] = s;
    }

    json levels = json::array();
    for (int l = 0; l < r->nlevels; l++) {
        const batch_level *b = &r->level[l];
        json e;
        e["stage"] = b->stage;
        e["voxel_mm"] = number(b->voxel_mm);
        e["grid"] = json::array({b->dim.x, b->dim.y, b->dim.z});
        e["kernel"] = b->kernel;
        e["steps"] = b->steps;
        e["mutual_information"] = number(b->similarity);
        e["seconds"] = number(b->seconds);
        levels.push_back(e);
    }
    j["levels"] = levels;

    json s;
    s["measure"] = "mutual information, 50 x 50 bins, over the template's non-zero voxels";
    s["before"] = number(r->similarity_before);
    s["after_affine"] = number(r->similarity_affine);
    s["final"] = number(r->similarity_final);
    j["similarity"] = s;

    if (r->nonlinear) {
        json d;
        d["folded_voxels"] = r->folded_voxels;
        d["voxels_with_jacobian_at_most_0.2"] = r->low_jacobian_voxels;
        d["jacobian_min"] = number(r->jacobian_min);
        d["jacobian_max"] = number(r->jacobian_max);
        j["deformation"] = d;
    }

    json t;
    t["read"] = number(r->seconds_read);
    t["affine"] = number(r->seconds_affine);
    t["nonlinear"] = number(r->seconds_nonlinear);
    t["outputs"] = number(r->seconds_outputs);
    t["total"] = number(r->seconds_total);
    t["threads"] = r->threads;
    j["seconds"] = t;

    json o = json::object();
    const char *keys[6] = {"align.com", "distortions.nii", "aligned.nii.gz", "qc.png", "summary.json", ""};
    for (int k = 0; k < 5; k++)
        if (r->outputs[k][0] != '\0') o[keys[k]] = r->outputs[k];
    j["outputs"] = o;

    std::string text = j.dump(2) + "\n";
    safe_file sf;
    if (safe_save_open(&sf, file_name, "w") == NULL) {
        printf("Error: cannot open the output file %s (%s)\n", file_name, strerror(errno));
        return 1;
    }
    fwrite(text.data(), 1, text.size(), sf.fp);
    return safe_save_close(&sf);
}
