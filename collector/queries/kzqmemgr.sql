-- kzqmemgr: memory manager. One row: the Memory Manager counters of this instance.
-- Reads: sys.dm_os_performance_counters (Memory Manager object).
-- Needs: VIEW SERVER STATE.
-- Memory in KB; lock blocks and memory grants are counts.
WITH counters AS (
    SELECT RTRIM(counter_name) AS ctr, cntr_value AS val
    FROM sys.dm_os_performance_counters
    WHERE object_name LIKE N'%:Memory Manager'
)
SELECT
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    MAX(CASE WHEN ctr = N'Connection Memory (KB)' THEN val END) AS CONMEM,
    MAX(CASE WHEN ctr = N'Granted Workspace Memory (KB)' THEN val END) AS GRNTMEM,
    MAX(CASE WHEN ctr = N'Lock Memory (KB)' THEN val END) AS LKMEMKB,
    MAX(CASE WHEN ctr = N'Lock Blocks Allocated' THEN val END) AS LKBLKAL,
    MAX(CASE WHEN ctr = N'Lock Owner Blocks Allocated' THEN val END) AS LOWNBAL,
    MAX(CASE WHEN ctr = N'Lock Blocks' THEN val END) AS LKBLKS,
    MAX(CASE WHEN ctr = N'Lock Owner Blocks' THEN val END) AS LOBLKS,
    MAX(CASE WHEN ctr = N'Maximum Workspace Memory (KB)' THEN val END) AS MAXWMEM,
    MAX(CASE WHEN ctr = N'Memory Grants Outstanding' THEN val END) AS MEMGOUT,
    MAX(CASE WHEN ctr = N'Memory Grants Pending' THEN val END) AS MEMGPEN,
    MAX(CASE WHEN ctr = N'Optimizer Memory (KB)' THEN val END) AS OMEMKB,
    MAX(CASE WHEN ctr = N'SQL Cache Memory (KB)' THEN val END) AS SQLCAMEM,
    MAX(CASE WHEN ctr = N'Target Server Memory (KB)' THEN val END) AS TARGMEM,
    MAX(CASE WHEN ctr = N'Total Server Memory (KB)' THEN val END) AS TOTMEM
FROM counters;
