// Never built: the headers that tests share are compiled ahead in this program's name.
int main() { return 0; }
