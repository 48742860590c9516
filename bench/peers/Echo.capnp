@0xd1f7a4c29b0e5863;

interface Echo {
    echo @0 (payload :Data) -> (payload :Data);
    conversation @1 (number :UInt32) -> (echo :Echo);
}
