// Stands for the test programs where their common headers are compiled.
int main()
{
    return 0;
}
