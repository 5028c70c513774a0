#include "daemon/run.hpp"

int main(int argc, char* argv[])
{
    return zol::moatkeeper::run(argc, argv);
}
