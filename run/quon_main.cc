int quon_main(int, char**) { return 0; }
