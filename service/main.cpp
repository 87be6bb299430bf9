// StreamloftCEFOverlayHelper: the overlay rendering service.
#include "service/SLFCefServiceMain.h"

int main(int argc, char** argv)
{
    return SLFCefServiceMain(argc, argv);
}
