// What the host that calls lvGo adds to a run: its own changes to the scene
// once the files are read, a word after every frame, and a quiet report.
// The command-line host sets them; a host that leaves them alone gets the
// run as it always is.
#pragma once

struct HostHooks {
    // After the scene files are read and before anything is prepared.
    void (*sceneRead)() = nullptr;
    // After each frame that lvGo renders.
    void (*frameDone)() = nullptr;
    // The report prints its error lines only.
    bool quiet = false;
};
