#pragma once
// The windowed application: creates the main window and runs the event loop.

namespace ferrovane {

class FVAppDelegate {
public:
    static int main(int argc, char** argv);
};

}  // namespace ferrovane
