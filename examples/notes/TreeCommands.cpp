// Whole trees of files in and out.
#include <iostream>

#include "examples/notes/Command.h"
#include "examples/notes/ExportTree.h"
#include "examples/notes/ImportTree.h"

namespace notes {

namespace {

template <class Tree>
void report(const char* what, const Tree& tree) {
    std::cout << what << ' ' << tree.notebooks() << " notebooks, " << tree.notes() << " notes, " << tree.attachments()
              << " attachments\n";
}

void importTree(Installation& installation, const Arguments& arguments) {
    Progress progress(installation.options().quiet);
    ImportTree tree(installation.context(), progress);
    for (const auto& path : arguments.positional()) tree.add(path);
    progress.show("saving " + std::to_string(tree.notes()) + " notes");
    installation.saveStore();
    progress.clear();
    report("imported", tree);
}

void exportTree(Installation& installation, const Arguments& arguments) {
    Progress progress(installation.options().quiet);
    ExportTree tree(arguments[0], progress);
    tree.write(installation.context());
    progress.clear();
    report("exported", tree);
}

}  // namespace

std::vector<Command> treeCommands() {
    return {
        {"import", "PATH...", "adds a notebook for every directory and a note for every file", {}, 1, anyNumber, importTree},
        {"export", "DIR", "writes notebooks, notes and attachments back as directories and files", {}, 1, 1, exportTree},
    };
}

}  // namespace notes
