import test from 'node:test';

test('to be written', { skip: 'not written yet' }, () => {});
