// A line on standard error, rewritten in place after every frame while a
// scene renders, when standard error is a terminal: the frames done of all,
// the time gone and the time left, the rays per second.
#pragma once

// Starts the clock of the run.
void startProgress();
// Rewrites the line after a frame; clears it after the last.
void showProgress();
