#include "entry.h"

int main(int argc, char** argv)
{
    return entry::run(argc, argv);
}
